// Reading the daemon's daily logs, one message at a time: files of any size in constant memory.
//
// A message with a newline in its middle gets none at its end, so that the next one begins in the
// middle of a line. What no message begins is skipped: rests of such messages, and lines of others.
#pragma once

#include <functional>
#include <optional>
#include <string_view>

#include "log_files.h"
#include "log_time.h"

// One message. `text` is its first line and points into the reader's buffer.
struct LogMessage {
    LogTime time;
    int level;  // LOG_*, -1 for any other word
    std::string_view text;
};
using MessageVisitor = std::function<void(const LogMessage&)>;

// A message without its origin in the sources, which tells an operator nothing.
std::string_view without_origin(std::string_view text);

// The message that begins in `line` (without its newline) of the log of that day, if there is one.
// The daemon chooses the log by the time in the line: one of another day stands in a value.
std::optional<LogMessage> parse_log_line(std::string_view line, LogTime day);

// Calls `visit` for each message of the log. False with errno when it cannot be read to its end.
bool visit_messages(const DailyLog& log, const MessageVisitor& visit);
