// Datagrams on their way from the thread that receives them to the one that answers them.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <optional>

#include "backlog.h"

// Any thread. Logs nothing.
class Inbox {
public:
    explicit Inbox(std::size_t most) : waiting_(most) {}

    // False, and the datagram is dropped, when as many wait as may.
    bool put(const Datagram& datagram);

    // No more will come, for the reason `cause` (errno).
    void close(int cause);

    // Waits for the next datagram. Nothing, with errno, once all have been taken after a close.
    std::optional<Datagram> next();

    // As Backlog::drop_repeats.
    std::size_t drop_repeats(const Datagram& request);

private:
    std::mutex lock_;  // guards all below
    std::condition_variable changed_;
    Backlog waiting_;
    std::optional<int> closed_;
};
