#include "console.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace {

constexpr const char* PLAIN_AGAIN = "\x1b[0m";

const char* code_of(Colour colour) {
    constexpr std::array<const char*, 6> CODES = {"",         "\x1b[1m",  "\x1b[2m",
                                                  "\x1b[32m", "\x1b[33m", "\x1b[31m"};
    return CODES[static_cast<std::size_t>(colour)];
}

// A terminal that does more than print characters.
bool obeys_escapes(int fd) {
    const char* kind = std::getenv("TERM");
    return is_terminal(fd) && (kind == nullptr || std::string_view(kind) != "dumb");
}

bool shows_colours(int fd) {
    const char* refused = std::getenv("NO_COLOR");
    return obeys_escapes(fd) && (refused == nullptr || *refused == '\0');
}

std::string paint_for(int fd, Colour colour, std::string_view text) {
    if (colour == Colour::PLAIN || text.empty() || !shows_colours(fd)) {
        return std::string(text);
    }
    return fmt::format("{}{}{}", code_of(colour), text, PLAIN_AGAIN);
}

}  // namespace

bool is_terminal(int fd) {
    const int saved_errno = errno;  // a failure that is told afterwards may name it
    const bool is = isatty(fd) == 1;
    errno = saved_errno;
    return is;
}

std::string paint(Colour colour, std::string_view text) {
    return paint_for(STDOUT_FILENO, colour, text);
}

void print_line(std::string_view text) {
    fmt::print("{}\n", text);
}

void print_complaint(std::string_view text) {
    std::fflush(stdout);
    fmt::print(stderr, "{} {}\n", paint_for(STDERR_FILENO, Colour::RED, "quorsyncctl:"), text);
}

std::string counted(std::size_t count, std::string_view noun) {
    return fmt::format("{} {}{}", count, noun, count == 1 ? "" : "s");
}

std::string grouped(std::int64_t number) {
    const std::string digits = std::to_string(number);
    std::string text;
    for (std::size_t n = 0; n < digits.size(); ++n) {
        const bool begins_group = n > 0 && (digits.size() - n) % 3 == 0;
        text += begins_group ? "," : "";
        text += digits[n];
    }
    return text;
}

std::string age_text(long seconds) {
    if (seconds < 120) {
        return fmt::format("{} s", std::max(seconds, 0L));
    }
    if (seconds < 7200) {
        return fmt::format("{} min", seconds / 60);
    }
    return seconds < 172800 ? fmt::format("{} h", seconds / 3600)
                            : fmt::format("{} days", seconds / 86400);
}

std::string bytes_text(std::uint64_t bytes) {
    constexpr std::array<const char*, 4> UNITS = {"KiB", "MiB", "GiB", "TiB"};
    if (bytes < 1024) {
        return fmt::format("{} B", bytes);
    }
    double amount = static_cast<double>(bytes) / 1024;
    std::size_t unit = 0;
    for (; amount >= 1024 && unit + 1 < UNITS.size(); ++unit) {
        amount /= 1024;
    }
    return fmt::format("{:.1f} {}", amount, UNITS[unit]);
}

ProgressBar::ProgressBar(std::string_view label)
    : label_(label), visible_(obeys_escapes(STDERR_FILENO)) {}

ProgressBar::~ProgressBar() {
    if (shown_) {
        fmt::print(stderr, "\r\x1b[K");
        std::fflush(stderr);
    }
}

bool ProgressBar::is_due() {
    constexpr std::chrono::milliseconds STEP{100};
    const Clock::time_point now = Clock::now();
    if (!visible_ || (shown_ && now - *shown_ < STEP)) {
        return false;
    }
    shown_ = now;
    return true;
}

void ProgressBar::tell(std::string_view text) {
    if (is_due()) {
        fmt::print(stderr, "\r\x1b[K{} {}", label_, text);
        std::fflush(stderr);
    }
}

void ProgressBar::show(std::uint64_t done, std::uint64_t total) {
    constexpr std::size_t WIDTH = 30;
    if (!is_due()) {
        return;
    }
    const double seconds = std::chrono::duration<double>(*shown_ - start_).count();
    const double share =
        total == 0 ? 0.0 : std::min(1.0, static_cast<double>(done) / static_cast<double>(total));
    const auto filled = static_cast<std::size_t>(share * static_cast<double>(WIDTH));
    const double rate = seconds > 0 ? static_cast<double>(done) / seconds : 0.0;
    fmt::print(stderr, "\r\x1b[K{} [{:-<{}}] {:3.0f} %  {}  {}/s", label_, std::string(filled, '#'),
               WIDTH, share * 100, bytes_text(done), bytes_text(static_cast<std::uint64_t>(rate)));
    std::fflush(stderr);
}
