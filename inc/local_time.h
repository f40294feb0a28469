// The system's local time, also after its time zone was changed.
#pragma once

#include <ctime>
#include <mutex>

// `seconds` since 1970 as local time. Looks each time whether the system's time zone has changed,
// which localtime_r alone does not. Any thread.
inline std::tm local_time(std::time_t seconds) {
    static std::mutex zone;  // the C library's zone, which tzset replaces
    const std::lock_guard lock(zone);
    tzset();
    std::tm local{};
    localtime_r(&seconds, &local);
    return local;
}
