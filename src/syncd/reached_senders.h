// Senders that are in no list and that the master has reached nevertheless, such as the address of
// a slave's second line. They are answered apart from the strangers that it cannot reach: each of
// those may take the whole time-out of a connection.
#pragma once

#include <netinet/in.h>

#include <algorithm>
#include <cstddef>
#include <deque>
#include <mutex>

// Any thread. Logs nothing.
class ReachedSenders {
public:
    bool has(in_addr_t address) const {
        const std::lock_guard hold(lock_);
        return std::find(addresses_.begin(), addresses_.end(), address) != addresses_.end();
    }

    // How the last connection to `address` (network byte order) went. Beyond the most that are
    // kept, the one that was reached longest ago becomes a stranger again.
    void note(in_addr_t address, bool reached) {
        const std::lock_guard hold(lock_);
        std::erase(addresses_, address);
        if (reached) {
            addresses_.push_back(address);
        }
        if (addresses_.size() > MOST) {
            addresses_.pop_front();
        }
    }

private:
    static constexpr std::size_t MOST = 64;

    mutable std::mutex lock_;
    std::deque<in_addr_t> addresses_;  // the one that was reached last at the end
};
