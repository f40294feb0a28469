// The open connections of the slave, and which of them is served next.
//
// A connection of the master never waits behind one of another address. Those of one address are
// served one after the other, in the order in which they came. Only one is served at a time: the
// records of one are on disk before another's message is acted on.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "message_stream.h"
#include "owned.h"
#include "record_sink.h"

using Moment = std::chrono::steady_clock::time_point;

// One connection. Its end shuts it down and closes it.
struct Connection {
    Connection(int descriptor, std::uint32_t peer, bool is_masters, Moment now)
        : fd(descriptor),
          address(peer),
          of_master(is_masters),
          silent_since(now),
          stream(descriptor) {}
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection();

    OwnedFd fd;
    std::uint32_t address;  // of the peer, network byte order
    bool of_master;
    bool at_turn = false;  // no older one of its address is open
    Moment silent_since;   // when bytes came last, or its turn began
    MessageStream stream;
    std::unique_ptr<RecordSink> sink;  // from its first message on
};

// Receiver thread only. Logs nothing.
class Connections {
public:
    static constexpr std::size_t MOST = 16;

    // Whether one more can be taken: there is room, or one that is not the master's to give way.
    bool can_take() const;

    // Takes a connection. When too many are open then, that of a stranger which has been silent for
    // longest is taken out and returned.
    std::unique_ptr<Connection> take(std::unique_ptr<Connection> fresh, Moment now);

    // Closes one that is in here. The next one of its address is at its turn from `now` on.
    void close(const Connection& connection, Moment now);

    // Closes all others.
    void close_all_but(const Connection* connection, Moment now);

    // Those that may be read while `served` (null for none) was served last: all at their turn, but
    // no stranger while a connection of the master has records in its batch.
    std::vector<Connection*> readable_beside(const Connection* served) const;

    bool empty() const { return open_.empty(); }

private:
    void give_turns(Moment now);

    std::vector<std::unique_ptr<Connection>> open_;  // in the order of their arrival
};

// Which of these, all of them with something to read, is served now: the one that is served already
// before others of its kind, a connection of the master before any other. Null for none.
Connection* choose(const std::vector<Connection*>& ready, const Connection* served);
