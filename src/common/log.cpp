#include "log.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>

#include "SGCLog.h"
#include "local_time.h"
#include "owned.h"

LogSettings log_settings;

namespace {

constexpr std::size_t MESSAGE_SIZE = 4096;
constexpr std::size_t LINE_SIZE = 5000;  // the longest message, its prefix and a newline

const char* level_word(int level) {
    constexpr std::array<const char*, 4> WORDS = {"DEBUG ", "INFO ", "ERROR ", "FATAL "};
    return level >= LOG_DEBUG && level <= LOG_FATAL ? WORDS[static_cast<std::size_t>(level)]
                                                    : "OTHER ";
}

std::atomic<bool> debug_log_built = false;
std::atomic<LogSink> log_sink = nullptr;

SGCLog& debug_log() {
    static SGCLog instance;  // built by the first message, under the language's own guard
    debug_log_built = true;
    return instance;
}

// What all lines of one second share: making it costs as much as writing a line.
struct SecondText {
    std::time_t second = -1;
    std::array<char, 64> prefix{};
    std::array<char, 64> file_name{};

    void update();
};

void SecondText::update() {
    const std::time_t now = std::time(nullptr);
    if (now == second) {
        return;
    }
    second = now;
    const std::tm local = local_time(now);
    (void)std::snprintf(prefix.data(), prefix.size(), "%s:%s %04d-%02d-%02d %02d:%02d:%02d ",
                        PROGRAM_NAME, PROGRAM_VERSION, local.tm_year + 1900, local.tm_mon + 1,
                        local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    (void)std::snprintf(file_name.data(), file_name.size(), "/%s_%04d_%02d_%02d.log", PROGRAM_NAME,
                        local.tm_year + 1900, local.tm_mon + 1, local.tm_mday);
}

const SecondText& this_second() {
    thread_local SecondText text;
    text.update();
    return text;
}

// A message as a line of standard output and of the daily file, with its newline.
struct StampedLine {
    const SecondText& second = this_second();
    std::array<char, LINE_SIZE> text;
    std::size_t length = 0;

    StampedLine(int level, const char* message);

private:
    void append(std::string_view piece) {
        length += piece.copy(text.data() + length, text.size() - 2 - length);
    }
};

StampedLine::StampedLine(int level, const char* message) {
    append(second.prefix.data());
    append(level_word(level));
    append(":");
    append(message);
    // A message that holds a newline anywhere, not only at its end, is written as it stands.
    if (std::memchr(text.data(), '\n', length) == nullptr) {
        text[length++] = '\n';
    }
}

void append_to_daily_file(const LogSettings& settings, const StampedLine& line) {
    std::string name(settings.dir, strnlen(settings.dir, sizeof settings.dir));
    name += line.second.file_name.data();
    // One write in append mode: lines of several threads never mix.
    const OwnedFd file(open(name.c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, 0666));
    if (file.valid()) {
        (void)!write(file.get(), line.text.data(), line.length);
    }
}

using FormattedMessage = std::array<char, MESSAGE_SIZE>;

FormattedMessage formatted(const char* format, va_list arguments) {
    FormattedMessage message;
    message.front() = '\0';
    (void)std::vsnprintf(message.data(), message.size(), format, arguments);
    return message;
}

void log_formatted(int level, const char* format, va_list arguments) {
    const int saved_errno = errno;
    const FormattedMessage message = formatted(format, arguments);
    if (const LogSink sink = log_sink; sink != nullptr) {
        sink(level, message.data());
    } else {
        debug_log().printDebug(message.data());
        write_log_file(log_settings, level, message.data());
    }
    errno = saved_errno;
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
    const StampedLine line(level, message);
    std::fwrite(line.text.data(), 1, line.length, stdout);
    std::fflush(stdout);  // a line must not wait in a buffer for the next one
    append_to_daily_file(settings, line);
    errno = saved_errno;
    return 0;
}

void write_daily_log(const LogSettings& settings, int level, const char* message) {
    append_to_daily_file(settings, StampedLine(level, message));
}

void set_log_sink(LogSink sink) {
    log_sink = sink;
}

int write_log(int level, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    log_formatted(level, format, arguments);
    va_end(arguments);
    return 0;
}

void log_arguments(const Message* message, ...) {
    va_list arguments;
    va_start(arguments, message);
    log_formatted(message->level, message->format, arguments);
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
    std::fflush(stdout);
    if (debug_log_built) {
        debug_log().close();
    }
}
