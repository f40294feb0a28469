// All that the tool prints: results on standard output, complaints on standard error, colours only
// on a terminal that has them (TERM is not "dumb"), and not with NO_COLOR set.
#pragma once

#include <fmt/format.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "characters.h"

enum class Colour { PLAIN, BOLD, DIM, GREEN, YELLOW, RED };

// `text` for standard output in that colour.
std::string paint(Colour colour, std::string_view text);

// Whether a person reads or writes there; errno is kept.
bool is_terminal(int fd);

// One line on standard output.
void print_line(std::string_view text);
template <typename... Arguments>
void say(fmt::format_string<Arguments...> format, Arguments&&... arguments) {
    print_line(fmt::format(format, std::forward<Arguments>(arguments)...));
}

// One line on standard error, "quorsyncctl: ...". It names the file or key and the way out.
void print_complaint(std::string_view text);
template <typename... Arguments>
void complain(fmt::format_string<Arguments...> format, Arguments&&... arguments) {
    print_complaint(fmt::format(format, std::forward<Arguments>(arguments)...));
}

// "7 records", "1 record".
std::string counted(std::size_t count, std::string_view noun);

// "43,000".
std::string grouped(std::int64_t number);

// "119 s", "2 min", "3 h", "2 days"; a negative age, of a clock that was set, is none.
std::string age_text(long seconds);

// "512 B", "2.0 KiB", "117.2 MiB".
std::string bytes_text(std::uint64_t bytes);

// One line of standard error that is overwritten as a transfer goes on; without a terminal there
// that can do that, nothing. One thread.
class ProgressBar {
public:
    explicit ProgressBar(std::string_view label);
    ~ProgressBar();
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

    // Bytes that have come, of how many; shown a few times a second, however often it is called.
    void show(std::uint64_t done, std::uint64_t total);

    // The same with a text in the place of the bar.
    void tell(std::string_view text);

private:
    using Clock = std::chrono::steady_clock;

    bool is_due();  // and counts as shown then

    std::string label_;
    bool visible_;
    Clock::time_point start_ = Clock::now();
    std::optional<Clock::time_point> shown_;
};
