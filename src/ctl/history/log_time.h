// Times as the daily logs hold them and as operators write them.
#pragma once

#include <chrono>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>

// Local wall time without its zone, as the log holds it: differences are wrong by what the clock
// was set meanwhile, and at a change of summer time.
using LogTime = std::chrono::local_seconds;

inline constexpr std::size_t STAMP_LENGTH = 19;  // "2026-11-16 03:52:26"

// The present time.
LogTime log_time_now();

// The seconds since 1970 at that local time.
std::time_t epoch_of(LogTime time);

// The time that passed between both, also where summer time began or ended meanwhile.
std::chrono::seconds elapsed(LogTime from, LogTime to);

// Whether the time zone's own change, as at the end of summer time, lies between both, at most a
// minute apart, of which the later one shows the earlier time.
bool zone_went_back(LogTime from, LogTime to);

// The first second of "2026-11-16"; whatever stands between the numbers.
std::optional<LogTime> parse_day(std::string_view text);

// "2026-11-16 03:52:26", also without the seconds.
std::optional<LogTime> parse_stamp(std::string_view text);

// What "2026-11-16 03:00", "2026-11-16", "03:00" (of today), "2h" (also s, m, d, w), "today" and
// "yesterday" mean at the time `now`; nothing for any other text.
std::optional<LogTime> parse_since(std::string_view text, LogTime now);

// "2026-11-16 03:52:26".
std::string format_log_time(LogTime time);
