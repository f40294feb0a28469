// A pair as the explorer sees it: everything that decides what can happen next, as one value, and
// the events that lead from one value to another.
//
// The slave's client list, what a start as the master does to it, the decisions about a take-over
// and what the master pushes are the daemon's own code. The files, the lines, the clock, the
// administrator and the mishaps are the explorer's.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <type_traits>
#include <utility>
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
    unsigned backups;      // with which the master returns
    unsigned swaps;        // of roles
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

struct Disk {
    Clients clients;
    Clients kept;
    StampNumber stamp;
    bool has_journal;
    ListJournal::Phase phase;
    std::uint8_t due;
    bool says_kept;
    StampNumber closing;
    StampNumber own;

    // What the explorer remembers.
    Clients stamp_set;   // the records that belong to the stamp
    Clients closed_set;  // those of the last push that came whole
    Clients complete;    // the last complete list
};

// What the slave's list remembers of itself and of the push that it reads.
struct Memory {
    ListState state;
    bool kept;
    std::uint8_t due;
    StampNumber closing;
    bool batch_open;
    Clients batch;  // records that a kill loses
    bool begun, asked, refused, failed, stored, current;
};

// Zero-filled where nothing else is said, and without padding, so that equal worlds are equal
// bytes.
struct World {
    Disk of_master;
    bool master_runs;
    bool master_changed;     // the clients, but not yet the stamp
    StampNumber last_stamp;  // that was ever used
    Clients backup_clients;
    StampNumber backup_stamp;
    std::array<Waiting, 4> datagrams;
    std::array<Channel, 3> connections;  // the first one is being served

    Disk of_slave;
    bool slave_runs, stop_asked, promoted, bottle_empty, records_arrive;
    Memory memory;

    std::uint8_t mishaps;  // still to come
    std::uint8_t backups;
    std::uint8_t swaps;
};
static_assert(std::has_unique_object_representations_v<World>);

enum class Act : std::uint8_t {
    EDIT,          // the administrator adds or removes a client (argument) on the master
    NEW_STAMP,     // and gives the list a new stamp
    SERVE,         // the master serves the datagram that has waited longest
    SERVE_EDITED,  // the same, and between stamp and records the list changes as by EDIT and
                   // NEW_STAMP

    // These work on a client list, and its disk can go wrong.
    BEAT,            // a period of the slave; its heartbeat waits at the master
    RUN_OUT,         // so many periods without an answer that the bottle is empty
    FALL_SILENT,     // no record for two seconds
    DELIVER,         // the slave reads the next message
    DELIVER_SLOWLY,  // as before, and the supervisor looks just as it is done with it
    REQUEST_LOST,    // the next message is an answer; the request that it makes gets lost
    PAUSE,           // no message for 50 ms
    START_SLAVE,
    START_MASTER,

    CUT,  // the connection breaks
    KILL_SLAVE,
    STOP_SLAVE,  // SIGTERM
    KILL_MASTER,
    RESTORE_BACKUP,  // the master's disk is replaced by its backup
    SWAP_ROLES,      // both end; each is going to start with the other role
    END,
};

constexpr bool uses_list(Act act) {
    return act >= Act::BEAT && act <= Act::START_MASTER;
}

// What the disk does to an event, counted in its durable changes.
enum class Mishap : std::uint8_t {
    NONE,
    KILLED,        // the host that uses it is killed when `at` changes are done
    REFUSED,       // change number `at` fails
    HALF_REFUSED,  // it fails when it is done, as a flush does
};

struct Event {
    Act act;
    std::uint8_t argument = 0;
    Mishap mishap = Mishap::NONE;
    std::uint8_t at = 0;
};

struct Result {
    World world;
    std::string violation{};  // empty: none
    bool struck = false;      // the event had enough steps for its mishap to come
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

private:
    void with_mishaps(const World& world, const Event& plain,
                      std::vector<std::pair<Event, Result>>& found) const;
    bool possible(const World& world, Act act, unsigned argument) const;

    Bounds bounds_;
};

// In words.
std::string text_of(const World& before, const Event& event);
std::string text_of(const World& world);
