// Reading the daemon's daily logs, one message at a time: files of any size in constant memory.
//
// A message with a newline in its middle gets none at its end, so that the next one begins in the
// middle of a line. What no message begins is skipped: rests of such messages, and lines of others.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Local wall time without its zone, as the log holds it: differences are wrong by what the clock
// was set meanwhile.
using LogTime = std::chrono::local_seconds;

// One message. `text` is its first line and points into the reader's buffer.
struct LogMessage {
    LogTime time;
    int level;  // LOG_*, -1 for any other word
    std::string_view text;
};
using MessageVisitor = std::function<void(const LogMessage&)>;

// A message without its origin in the sources, which tells an operator nothing.
std::string_view without_origin(std::string_view text);

// The message that begins in `line` (without its newline), if there is one.
std::optional<LogMessage> parse_log_line(std::string_view line);

struct DailyLog {
    std::string path;
    LogTime day;  // its first second
};

// The daily files in `directory`, oldest first. Sets errno and yields nothing when it cannot be
// read.
std::optional<std::vector<DailyLog>> daily_logs(const std::string& directory);

// Calls `visit` for each message of the file. False with errno when it cannot be read to its end.
bool visit_messages(const std::string& path, const MessageVisitor& visit);

// The present time.
LogTime log_time_now();

// What "2026-11-16 03:00", "2026-11-16", "03:00" (of today), "2h" (also s, m, d), "today" and
// "yesterday" mean at the time `now`; nothing for any other text.
std::optional<LogTime> parse_since(std::string_view text, LogTime now);

// "2026-11-16 03:52:26".
std::string format_log_time(LogTime time);
