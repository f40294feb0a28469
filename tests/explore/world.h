// A pair as the explorer sees it: everything that decides what can happen next, as one value, and
// the events that lead from one value to another.
//
// The slave's client list, its decisions about a take-over and what the master pushes are the
// daemon's own code. The files, the lines, the clock, the administrator and the mishaps are the
// explorer's.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

#include "slave/client_list/client_list.h"

// How far the exploration goes.
struct Bounds {
    unsigned clients;      // of the master, at most 3
    unsigned stamps;       // of the master, at most 7
    unsigned datagrams;    // waiting at the master
    unsigned connections;  // waiting at the slave, with the one that is served
    unsigned due;          // pushes that were asked for
    unsigned mishaps;      // kills, cuts, losses and refusals of the disk, taken together
    unsigned swaps;        // of roles, and returns of the master with a backup
};

using Clients = std::uint8_t;  // a bit for each
using StampNumber = std::uint8_t;

inline constexpr Clients NO_LIST = 0xff;  // there is no such list, which is not an empty one
inline constexpr StampNumber NO_STAMP_YET = 0;
inline constexpr StampNumber NULL_STAMP = 9;  // what a master without a stamp answers

enum class Waiting : std::uint8_t { NONE, HEARTBEAT, REQUEST };

// A connection of the master to the slave, with what is still to be read from it.
struct Channel {
    bool there;
    bool is_push;  // else an answer
    bool broken;   // nothing behind the records, not even the closing one
    StampNumber stamp;
    Clients to_come;
    Clients set;  // all its records
};

// Zero-filled where nothing else is said, and without padding, so that equal worlds are equal
// bytes.
struct World {
    // The master.
    std::uint8_t master_runs;
    Clients master_clients;
    StampNumber master_stamp;
    std::uint8_t master_changed;  // the clients, but not yet the stamp
    StampNumber last_stamp;       // that was ever used
    std::array<Waiting, 4> datagrams;
    std::array<Channel, 3> connections;  // the first one is being served

    // The slave's disk.
    Clients clients;
    Clients kept;
    StampNumber stamp;
    std::uint8_t journal_there;
    std::uint8_t journal_phase;
    std::uint8_t journal_due;
    std::uint8_t journal_kept;
    StampNumber journal_stamp;

    // The slave's memory.
    std::uint8_t slave_runs;
    std::uint8_t stop_asked;
    std::uint8_t promoted;
    std::uint8_t bottle_empty;
    std::uint8_t records_arrive;
    std::uint8_t list_state;
    std::uint8_t list_kept;
    std::uint8_t list_due;
    StampNumber list_closing;
    std::uint8_t list_put_back;
    std::uint8_t batch_open;
    Clients batch;  // records that a kill loses
    std::uint8_t push_begun, push_asked, push_refused, push_failed, push_stored, push_current;

    // What the explorer remembers.
    Clients stamp_set;   // the records of the push that ended with the slave's stamp
    Clients closed_set;  // those of the last push that came whole
    Clients complete;    // the last complete list
    Clients backup_clients;
    StampNumber backup_stamp;
    std::uint8_t mishaps;  // still to come
    std::uint8_t swaps;

    bool operator==(const World&) const = default;
};
static_assert(std::has_unique_object_representations_v<World>);

enum class Act : std::uint8_t {
    EDIT,            // the administrator adds or removes a client (argument) on the master
    NEW_STAMP,       // and gives the list a new stamp
    BEAT,            // a period of the slave; its heartbeat waits at the master
    RUN_OUT,         // so many periods without an answer that the bottle is empty
    FALL_SILENT,     // no record for two seconds
    SERVE,           // the master serves the datagram that has waited longest
    SERVE_EDITED,    // the same, and between stamp and records the list changes as by EDIT and
                     // NEW_STAMP
    DELIVER,         // the slave reads the next message
    DELIVER_SLOWLY,  // as before, and the supervisor looks just as it is done with it
    REQUEST_LOST,    // the next message is an answer; the request that it makes gets lost
    PAUSE,           // no message for 50 ms
    CUT,             // the connection breaks
    KILL_SLAVE,
    START_SLAVE,
    STOP_SLAVE,  // SIGTERM
    KILL_MASTER,
    START_MASTER,
    RESTORE_BACKUP,  // the master's disk is replaced by its backup
    SWAP_ROLES,      // both end, and start with the other role
};

// What the disk does to an event, counted in its durable changes.
enum class Mishap : std::uint8_t {
    NONE,
    KILLED,        // the slave is killed when `at` changes are done
    REFUSED,       // change number `at` fails
    HALF_REFUSED,  // it fails when it is done, as a flush does
};

struct Event {
    Act act;
    std::uint8_t argument;
    Mishap mishap;
    std::uint8_t at;
};

struct Result {
    World world;
    std::string violation;  // empty: none
    bool struck;            // the event had enough steps for its mishap to come
};

class Explorer {
public:
    explicit Explorer(const Bounds& bounds) : bounds_(bounds) {}

    std::vector<World> beginnings() const;

    // All events that can happen in `world`, with each mishap.
    void successors(const World& world, std::vector<std::pair<Event, Result>>& found) const;

    // What happens next when nothing more goes wrong.
    static Act healing_act(const World& world);
    static bool is_healed(const World& world);

    Result apply(const World& world, const Event& event) const;

    static std::string text_of(const World& before, const Event& event);
    static std::string text_of(const World& world);

private:
    void with_mishaps(const World& world, const Event& plain,
                      std::vector<std::pair<Event, Result>>& found) const;
    bool possible(const World& world, Act act, std::uint8_t argument) const;

    Bounds bounds_;
};
