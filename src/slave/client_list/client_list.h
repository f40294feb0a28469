// The slave's client list: where it stands, what it is filled with, and under which stamp.
//
// A new stamp of the master means a whole new list: client.db is emptied, the master is asked, and
// a push brings every record. Until the closing record of that push has come, the list from before
// is kept as client.db.previous. A take-over goes back to it, and so do a start as the master and
// an answer with the stamp of the list from before.
//
// Every change of the list goes through this object. moves.h has its states and the table of its
// moves; files.h the steps on disk. What holds at any time:
//
// I1. Where client_db_version holds the stamp S because a push that was asked for has ended,
//     client.db holds exactly the records of that one push whenever the list is complete or
//     restored, and as soon as an answer with S has been dealt with.
// I2. The boot services of a take-over start on the last complete list, or on a newer complete one.
//     A list without records counts as none.
// I3. After a kill or a power failure between any two steps the pair comes back to I1 by itself:
//     without an operator and without a new stamp.
// I4. When faults end, both sides become equal.
// I5. A complete list whose place is taken by one of less than half its records is there as
//     client.db.before-shrink, until the list shrinks so the next time. One that has more records
//     than the next one stays for a week.
//
// Several requests may be on their way: each answer of a master that stood still makes one. So the
// list counts the pushes that are due, also across a restart, and starts each of them on an empty
// list. Only a connection of the master can be one of them. A count that is too high (a lost
// request) does no harm: a master pushes nothing unasked. Records that nobody asked for, of tools
// for instance, are added to what is there, and their stamp is stored.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>

#include "slave/client_list/files.h"
#include "slave/client_list/moves.h"
#include "stamps.h"

// Time that only goes forward, since any moment.
class ListClock {
public:
    virtual ~ListClock() = default;
    virtual std::chrono::nanoseconds now() = 0;
};

// What the list knows of the client records of one connection. The connection makes it and hands it
// over with each of them; nobody else changes it.
struct ClientPush {
    bool of_master = false;  // it comes from one of the master's addresses
    bool begun = false;
    bool asked = false;    // it is one of those that were due
    bool refused = false;  // it could not begin on an empty list
    bool failed = false;   // a record could not be stored
    bool stored = false;   // any record could
    bool whole = false;    // its closing record came and was obeyed: for whoever tells of it
    unsigned version = 0;  // of client.db, when the push began
    std::optional<FileId> file = std::nullopt;  // that its last batch went into
};

// All that the list remembers outside its files. A value of its own, so that tests can take the
// list from one state to another and back.
struct ListMemory {
    ListState state = ListState::COMPLETE;
    bool kept = false;            // client.db.previous is the list from before
    int due = 0;                  // pushes that were asked for and have not begun
    unsigned version = 0;         // counts the files that were client.db
    std::string closing_stamp;    // to be stored, while the list is closing
    ClientPush* batch = nullptr;  // whose records are in the open batch
    bool put_back = false;        // how the version before this one ended
};

// Any thread, unless it says otherwise. Logs what the files log, why the stamp of a closing record
// must not be stored, and LIST_MOVE_REFUSED for a move that the table does not have, which ends the
// process.
class ClientList {
public:
    // Both outlive the list.
    ClientList(ListFiles& files, ListClock& clock, ListMemory memory = {});
    ClientList(const ClientList&) = delete;
    ClientList& operator=(const ClientList&) = delete;

    // Takes the list up as it lies on disk, and ends what a kill cut short. A master has no push to
    // wait for and changes its list by other means, so it goes back to a list that was kept;
    // without one, the part that is there becomes its list and the stamp goes. Before other threads
    // are started.
    void start_as_slave();
    void start_as_master();

    // The own stamps, the empty text where there is none; nothing when config.db cannot be read.
    std::optional<StampPair> stamps();

    // An answer came with a stamp that differs from the own one. Returns whether client.db is empty
    // now and the push may be asked for.
    bool ask();

    // An answer came with the own stamp.
    void equal_stamps();

    // A client record came, or a closing record. The latter returns whether it ended a push that
    // was asked for. Receiver thread.
    void put(ClientPush& push, const std::string& key, const std::string& value);
    bool close(ClientPush& push, const std::string& stamp);

    // An answer came on the connection of a push. If it put another file in the place of client.db,
    // what follows is another push. Receiver thread.
    void answered(ClientPush& push);

    // The connection brings nothing for a moment, or something else: its records go to disk. And:
    // it has ended. Receiver thread.
    void flush(ClientPush& push);
    void end(ClientPush& push);
    bool holds_batch(const ClientPush& push);

    // The boot services are about to start. Waits until no batch is open.
    void take_over();

    // Whether records have arrived within the last 2 seconds, or one is being worked on.
    bool grows();

    // Exists while the receiver works on a record.
    class Work {
    public:
        explicit Work(ClientList& list);
        Work(const Work&) = delete;
        Work& operator=(const Work&) = delete;
        ~Work();

    private:
        ClientList& list_;
    };

    const ListMemory& memory() const { return memory_; }

private:
    // Exists while the receiver is at work on the list; a take-over that waits comes first.
    class Turn {
    public:
        explicit Turn(ClientList& list);
        Turn(const Turn&) = delete;
        Turn& operator=(const Turn&) = delete;
        ~Turn();

    private:
        bool take();
        void end();

        ClientList& list_;
    };

    bool load();
    void look_for_kept();
    bool finish_closing();
    bool move(ListEvent event, const std::string& stamp = {});
    bool take(ListStep step, const std::string& stamp);
    bool keep();
    bool empty();
    bool put_back();
    bool retire_kept();
    bool note(ListJournal::Phase phase);
    void undo_keeping();
    void begin(ClientPush& push);
    void refuse_stamp(const ClientPush& push) const;
    bool outdated(const ClientPush& push) const;
    bool open_batch(ClientPush& push);
    void replaced_by_empty(ClientPush& push);
    void replaced_by_others(ClientPush& push);
    void close_batch();

    ListFiles& files_;
    ListClock& clock_;

    // Whose turn it is. The mutex itself is not held while files are worked on: an open batch keeps
    // its file locked from one turn to the next.
    std::mutex mutex_;
    std::condition_variable changed_;
    bool busy_ = false;  // the receiver's
    // The supervisor's, once the receiver's has ended and no batch is open.
    bool taking_over_ = false;
    ListMemory memory_;

    // When the last record was dealt with; one value, so that no reader sees a half of a change.
    std::atomic<std::chrono::nanoseconds::rep> last_record_;
};

// The list of this host.
ClientList& client_list();
