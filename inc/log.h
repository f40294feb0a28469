// The daemon's diagnostic call, log_message(), and what stands behind it.
//
// Every message goes to three places, in this order: the rolling debug log (when switched on, see
// SGCLog.h), standard output, and a file of the current day, "/var/log//quorsyncd_2026_11_16.log".
// In the latter two it is a stamped line:
//
//   quorsyncd:2.1 2026-11-16 03:52:26 INFO :restore to be a slave host
//
// The daily log is opened and closed for every message, or for the lines of a burst of records
// (log_burst.h), so it may be moved or deleted at any time. Nothing is filtered by level.
#pragma once

#include <array>
#include <string>
#include <string_view>
#include <type_traits>

#include "messages.h"

// Identity of the program in every line and file name.
inline constexpr const char* PROGRAM_NAME = "quorsyncd";
inline constexpr const char* PROGRAM_VERSION = "2.1";

inline constexpr const char* LOG_DIRECTORY = "/var/log";  // of the daily logs

struct LogSettings {
    int level = LOG_INFO;         // kept, but never consulted
    char dir[266] = "/var/log/";  // directory of the daily logs, with its trailing slash
};
extern LogSettings log_settings;

// Copies `dir` (when not null; at most 266 bytes, unterminated when longer) and `level` (when 0 to
// 3) into `settings`. Returns 0. Call it before other threads log.
int set_log_settings(LogSettings& settings, const char* dir, int level);

// Logs one printf-style message of at most 4095 characters; a longer one is cut. A newline is
// added when the message holds none. Any level but 0 to 3 is written as "OTHER ". Always returns 0;
// what cannot be written is dropped silently. Any thread; errno is kept.
int write_log(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

// The type of an argument in takes_arguments(); there is none for what no message takes.
template <typename Argument>
inline constexpr char ARGUMENT_TYPE = '?';
template <>
inline constexpr char ARGUMENT_TYPE<int> = 'd';
template <>
inline constexpr char ARGUMENT_TYPE<unsigned> = 'u';
template <>
inline constexpr char ARGUMENT_TYPE<long> = 'l';
template <>
inline constexpr char ARGUMENT_TYPE<std::size_t> = 'z';
template <>
inline constexpr char ARGUMENT_TYPE<const char*> = 's';
template <>
inline constexpr char ARGUMENT_TYPE<char*> = 's';

// A message that takes arguments of these types; any other does not compile.
template <char... TYPES>
class CheckedMessage {
public:
    consteval CheckedMessage(const Message& message) : message_(message) {
        constexpr std::array<char, sizeof...(TYPES)> types{TYPES...};
        if (!takes_arguments(message.format, {types.data(), types.size()})) {
            throw "the arguments do not fit the format of the message";
        }
    }
    const Message& get() const { return message_; }

private:
    const Message& message_;
};
template <typename... Arguments>
using MessageFor = CheckedMessage<ARGUMENT_TYPE<Arguments>...>;

// Unchecked; for log_message only.
void log_arguments(const Message* message, ...);

// Logs one of the messages with its arguments, as write_log does: log_message(msg::TOOK_OVER). Any
// thread; errno is kept.
template <typename... Arguments>
void log_message(std::type_identity_t<MessageFor<Arguments...>> message, Arguments... arguments) {
    log_arguments(&message.get(), arguments...);
}

// Unchecked; for message_text only.
std::string format_arguments(const Message* message, ...);

// The text that log_message logs. Any thread.
template <typename... Arguments>
std::string message_text(std::type_identity_t<MessageFor<Arguments...>> message,
                         Arguments... arguments) {
    return format_arguments(&message.get(), arguments...);
}

// Logs the message and returns its text, for results that carry the reason of a failure. Any
// thread; errno is kept.
template <typename... Arguments>
std::string log_failure(std::type_identity_t<MessageFor<Arguments...>> message,
                        Arguments... arguments) {
    log_arguments(&message.get(), arguments...);
    return format_arguments(&message.get(), arguments...);
}

// The part of write_log that serves standard output and the daily log. Always returns 0.
int write_log_file(const LogSettings& settings, int level, const char* message);

// The daily log alone.
void write_daily_log(const LogSettings& settings, int level, const char* message);

// Hands the messages of write_log to `sink` and to none of the places above; null brings those
// back. For tools on this library, whose standard output is their own. Any thread may call the
// sink. Call it before other threads log.
using LogSink = void (*)(int level, const char* message);
void set_log_sink(LogSink sink);

// Hands everything logged so far to the system: the lines that threads have in hand, standard
// output and the rolling debug log, which takes no messages afterwards. For the moment before the
// process ends or detaches. Any thread.
void close_logs();
