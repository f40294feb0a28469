// Senders that are in no list and that the master has reached nevertheless, such as the address of
// a slave's second line. They are answered apart from the strangers that it cannot reach: each of
// those may take the whole time-out of a connection.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <mutex>
#include <set>

// Any thread. Logs nothing.
class ReachedSenders {
public:
    bool has(in_addr_t address) const {
        const std::lock_guard hold(lock_);
        return addresses_.contains(address);
    }

    // How the last connection to `address` (network byte order) went. Of more than the most that
    // are kept, the further ones stay strangers.
    void note(in_addr_t address, bool reached) {
        const std::lock_guard hold(lock_);
        if (!reached) {
            addresses_.erase(address);
        } else if (addresses_.size() < MOST) {
            addresses_.insert(address);
        }
    }

private:
    static constexpr std::size_t MOST = 64;

    mutable std::mutex lock_;
    std::set<in_addr_t> addresses_;
};
