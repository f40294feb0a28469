// Which role this host takes in the pair, from three values of config.db (`ha`, `server_list`,
// `master`) and its own addresses.
//
// The host whose address is `master` is the master. Of the others, the first listed server is the
// slave, unless it is itself the master; then the second listed one is. A third server never takes
// a role, and neither does a server that is listed alone.
#pragma once

#include <string>
#include <string_view>

inline constexpr int ROLE_MASTER = 0x1010;
inline constexpr int ROLE_SLAVE = 0x101;
inline constexpr int ROLE_ACTING_MASTER = 0x1111;  // a slave that has taken over

// What a slave logs of itself.
inline constexpr int STATUS_STANDBY = 71;   // standing by as slave
inline constexpr int STATUS_PROMOTED = 75;  // this host has taken over the services

// What an answer of the master sets the slave's miss counter to; each heartbeat period takes one
// off.
inline constexpr int SLAVE_BEAT_RESET = 3;

// Why a host goes on waiting. Only the reasons from NO_SERVER_LIST to NO_MASTER are logged.
enum class RoleReason {
    DECIDED,
    HA_NOT_ENABLED,    // `ha` is not exactly "enable"
    NO_SERVER_LIST,    // `server_list` is missing or empty
    NO_LOCAL_ADDRESS,  // no counting interface (local_addresses.h) has an address
    NO_MASTER,         // `master` is missing or empty
    SINGLE_SERVER,     // fewer than two usable entries in `server_list`
    NOT_IN_PAIR,       // neither master nor the server that is the slave
};

struct RoleDecision {
    RoleReason reason;  // DECIDED, or why there is no role yet
    int role;           // ROLE_MASTER or ROLE_SLAVE when decided, else 0
    std::string first;  // first and second listed server, as far as they were found
    std::string next;
    std::string slave_ip;  // when decided
};

// What the decision rests on. `numbered_list` is the text of numbered_server_list().
struct RoleInputs {
    std::string ha;
    std::string numbered_list;
    std::string my_addresses;  // joined by ","
    std::string master;
};

// The decision itself: a pure function, for any host whose addresses are given.
RoleDecision decide_role(const RoleInputs& inputs);

// A server list as numbered text, "1,192.168.0.1*2,192.168.0.2".
std::string numbered_list_of(std::string_view server_list);

// The same of `server_list`; a new text that the caller frees, empty when the key is missing.
char* numbered_server_list();

// The decision for this host by its settings and addresses as they are now. Logs only what cannot
// be read.
RoleDecision decide_own_role();

// Decides the role of this host, trying again every 5 seconds until there is one; sets master_ip
// and slave_ip (own_role.h) and returns ROLE_MASTER or ROLE_SLAVE. Main thread. Logs at each
// try how far it came; the timeline tells from it what a host waits for. A host that is not one of
// the pair waits without a further line.
int determine_role();
