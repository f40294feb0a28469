#include "log.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#include "SGCLog.h"
#include "common/journal.h"
#include "common/log_lines.h"
#include "log_burst.h"
#include "state_page.h"

LogSettings log_settings;

namespace {

constexpr std::size_t MESSAGE_SIZE = 4096;

std::atomic<bool> debug_log_built = false;
std::atomic<LogSink> log_sink = nullptr;

SGCLog& debug_log() {
    static SGCLog instance;  // built by the first message, under the language's own guard
    debug_log_built = true;
    return instance;
}

using FormattedMessage = std::array<char, MESSAGE_SIZE>;

FormattedMessage formatted(const char* format, va_list arguments) {
    FormattedMessage message;
    message.front() = '\0';
    (void)std::vsnprintf(message.data(), message.size(), format, arguments);
    return message;
}

// Hands the message to `write` as well as to the debug log, unless a tool takes it.
template <typename Write>
void log_formatted(int level, const char* format, va_list arguments, Write write) {
    const int saved_errno = errno;
    const FormattedMessage message = formatted(format, arguments);
    if (const LogSink sink = log_sink; sink != nullptr) {
        sink(level, message.data());
    } else {
        page::message_logged(level);
        debug_log().printDebug(message.data());
        write(level, message.data());
    }
    errno = saved_errno;
}

void write_now(int level, const char* message) {
    (void)write_log_file(log_settings, level, message);
}

void write_with_burst(int level, const char* message) {
    if (LogBurst* burst = LogBurst::of_this_thread(); burst != nullptr) {
        burst->add(level, message);
    } else {
        write_now(level, message);
    }
}

}  // namespace

int set_log_settings(LogSettings& settings, const char* dir, int level) {
    if (dir != nullptr) {
        // As wide as the field: a longer text fills it without a terminator.
        std::memset(settings.dir, 0, sizeof settings.dir);
        std::memcpy(settings.dir, dir, strnlen(dir, sizeof settings.dir));
    }
    if (level >= LOG_DEBUG && level <= LOG_FATAL) {
        settings.level = level;
    }
    return 0;
}

int write_log_file(const LogSettings& settings, int level, const char* message) {
    const int saved_errno = errno;
    end_log_burst();
    const StampedLine line(level, message);
    print_lines(line.text());
    append_to_daily_file(settings, line.file_name(), line.text());
    send_to_journal(level, line.text());
    errno = saved_errno;
    return 0;
}

void write_daily_log(const LogSettings& settings, int level, const char* message) {
    const StampedLine line(level, message);
    append_to_daily_file(settings, line.file_name(), line.text());
}

void set_log_sink(LogSink sink) {
    log_sink = sink;
}

int write_log(int level, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    log_formatted(level, format, arguments, write_now);
    va_end(arguments);
    return 0;
}

void log_arguments(const Message* message, ...) {
    va_list arguments;
    va_start(arguments, message);
    log_formatted(message->level, message->format, arguments, write_now);
    va_end(arguments);
}

void log_record_arguments(const Message* message, ...) {
    va_list arguments;
    va_start(arguments, message);
    log_formatted(message->level, message->format, arguments, write_with_burst);
    va_end(arguments);
}

std::string format_arguments(const Message* message, ...) {
    va_list arguments;
    va_start(arguments, message);
    const FormattedMessage text = formatted(message->format, arguments);
    va_end(arguments);
    return text.data();
}

void close_logs() {
    end_all_log_bursts();
    std::fflush(stdout);
    if (debug_log_built) {
        debug_log().close();
    }
}
