// Lines as they stand on standard output and in the daily files: how they look, and writing them.
// Any thread; what cannot be written is dropped silently. errno is not kept.
#pragma once

#include <array>
#include <cstddef>
#include <string_view>

#include "log.h"

// A message as a line, with its stamp and its newline.
class StampedLine {
public:
    StampedLine(int level, const char* message);

    std::string_view text() const { return {text_.data(), length_}; }

    // The day's file, "/quorsyncd_2026_11_16.log", below the directory of the settings. Valid until
    // the next line of this thread.
    const char* file_name() const { return file_name_; }

private:
    static constexpr std::size_t SIZE = 5000;  // the longest message, its prefix and a newline

    void append(std::string_view piece);

    const char* file_name_;
    std::array<char, SIZE> text_;
    std::size_t length_ = 0;
};

void print_lines(std::string_view lines);
void append_to_daily_file(const LogSettings& settings, const char* file_name,
                          std::string_view lines);
