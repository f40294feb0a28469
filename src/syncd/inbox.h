// Datagrams on their way from the thread that receives them to the one that answers them.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <optional>

#include "backlog.h"
#include "rare_line.h"

// The datagrams of one kind of senders for which no inbox has a place. Any thread.
class DroppedDatagrams {
public:
    // Of `whose` datagrams, a word for the log.
    explicit DroppedDatagrams(const char* whose) : whose_(whose) {}

    // One more. Logs DATAGRAMS_DROPPED, at most once a second.
    void count(const Datagram& datagram);

private:
    const char* whose_;
    std::mutex lock_;  // guards the line
    RareLine line_;
};

// Any thread.
class Inbox {
public:
    // At most `most` datagrams wait; further ones are counted in `dropped`, which outlives the
    // inbox. The end of a push is awaited for `longest_end`: a slave that still deals with the
    // answers of a master that stood still comes to the push later.
    Inbox(DroppedDatagrams& dropped, std::size_t most,
          std::chrono::milliseconds longest_end = std::chrono::seconds(2))
        : dropped_(dropped), longest_end_(longest_end), waiting_(most) {}

    // The datagram waits for its answer. Dropped is a repeat of a request whose push is ending; and
    // any, when as many wait as may.
    void put(const Datagram& datagram);

    // No more will come, for the reason `cause` (errno).
    void close(int cause);

    // Waits for the next datagram. Nothing, with errno, once all have been taken after a close.
    std::optional<Datagram> next();

    // All that `request` asks for has just been sent on `connection`. Ends the sending side, and
    // drops the repeats of the request: those that wait, and those that come until the receiver has
    // ended its side, too, or does not end it in time. Logs REPEATS_DROPPED if there were any. The
    // thread that answers.
    void end_push(int connection, const Datagram& request);

private:
    // A push whose receiver has not come to its end yet.
    struct Push {
        int connection;
        const Datagram& request;
        std::size_t repeats;  // that were dropped
    };

    bool keep(const Datagram& datagram);

    DroppedDatagrams& dropped_;
    std::chrono::milliseconds longest_end_;
    std::mutex lock_;  // guards all below
    std::condition_variable changed_;
    Backlog waiting_;
    std::optional<Push> ending_;
    std::optional<int> closed_;
};
