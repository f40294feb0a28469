// Datagrams on their way from the thread that receives them to the one that answers them.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <optional>

#include "backlog.h"

// Any thread.
class Inbox {
public:
    // At most `most` wait, and the end of a push is awaited for `longest_end`: a slave that still
    // deals with the answers of a master that stood still comes to the push later.
    explicit Inbox(std::size_t most,
                   std::chrono::milliseconds longest_end = std::chrono::seconds(2))
        : longest_end_(longest_end), waiting_(most) {}

    // False, and the datagram is dropped, when as many wait as may. True also for a repeat of a
    // request whose push is ending.
    bool put(const Datagram& datagram);

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

    std::chrono::milliseconds longest_end_;
    std::mutex lock_;  // guards all below
    std::condition_variable changed_;
    Backlog waiting_;
    std::optional<Push> ending_;
    std::optional<int> closed_;
};
