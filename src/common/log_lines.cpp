#include "common/log_lines.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

#include "local_time.h"
#include "owned.h"
#include "state_page.h"

namespace {

std::string_view level_word(int level) {
    return level >= LOG_DEBUG && level <= LOG_FATAL ? LEVEL_WORDS[static_cast<std::size_t>(level)]
                                                    : "OTHER";
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

}  // namespace

StampedLine::StampedLine(int level, const char* message) {
    const SecondText& second = this_second();
    file_name_ = second.file_name.data();
    append(second.prefix.data());
    append(level_word(level));
    append(" :");
    append(message);
    // A message that holds a newline anywhere, not only at its end, is written as it stands.
    if (std::memchr(text_.data(), '\n', length_) == nullptr) {
        text_[length_++] = '\n';
    }
}

void StampedLine::append(std::string_view piece) {
    length_ += piece.copy(text_.data() + length_, text_.size() - 2 - length_);
}

void print_lines(std::string_view lines) {
    // A pipe may take them in parts: no line of another thread may come between these.
    flockfile(stdout);
    (void)fflush_unlocked(stdout);
    while (!lines.empty()) {
        const ssize_t written = write(STDOUT_FILENO, lines.data(), lines.size());
        if (written > 0) {
            lines.remove_prefix(static_cast<std::size_t>(written));
        } else if (written == 0 || errno != EINTR) {
            break;
        }
    }
    funlockfile(stdout);
}

void append_to_daily_file(const LogSettings& settings, const char* file_name,
                          std::string_view lines) {
    std::string name(settings.dir, strnlen(settings.dir, sizeof settings.dir));
    name += file_name;
    // One write in append mode: lines of several threads never mix.
    const OwnedFd file(open(name.c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, 0666));
    const bool written =
        file.valid() && write(file.get(), lines.data(), lines.size()) == std::ssize(lines);
    page::lines_written(lines, written ? 0 : errno);
}
