// Log lines about what others can cause without end.
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>

// Counts what happens, and says when a line about it is due: at most one a second. One thread at a
// time.
class RareLine {
public:
    // It has happened once more. How often it has since the last line, where the next one is due;
    // otherwise 0.
    std::size_t count(
        std::chrono::steady_clock::time_point now = std::chrono::steady_clock::now()) {
        ++count_;
        if (last_ && now - *last_ < std::chrono::seconds(1)) {
            return 0;
        }
        last_ = now;
        const std::size_t all = count_;
        count_ = 0;
        return all;
    }

private:
    std::size_t count_ = 0;
    std::optional<std::chrono::steady_clock::time_point> last_;
};
