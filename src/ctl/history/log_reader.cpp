#include "log_reader.h"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <ctime>
#include <memory>

#include "log.h"
#include "owned.h"

namespace {

using std::chrono::days;
using std::chrono::hours;
using std::chrono::local_days;
using std::chrono::minutes;
using std::chrono::seconds;

constexpr std::string_view LINE_START = "quorsyncd:";
constexpr std::size_t STAMP_LENGTH = 19;         // "2026-11-16 03:52:26"
constexpr std::size_t BUFFER_SIZE = 1UL << 20U;  // many times the longest message

// The number in `text`, all of which must be digits.
std::optional<int> digits(std::string_view text) {
    int number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (text.empty() || text.front() < '0' || error != std::errc() ||
        end != text.data() + text.size()) {
        return std::nullopt;
    }
    return number;
}

// "2026-11-16"; whatever stands between the numbers.
std::optional<LogTime> parse_day(std::string_view text) {
    if (text.size() != 10) {
        return std::nullopt;
    }
    const auto year = digits(text.substr(0, 4));
    const auto month = digits(text.substr(5, 2));
    const auto day = digits(text.substr(8, 2));
    if (!year || !month || !day) {
        return std::nullopt;
    }
    const std::chrono::year_month_day date(std::chrono::year(*year),
                                           std::chrono::month(static_cast<unsigned>(*month)),
                                           std::chrono::day(static_cast<unsigned>(*day)));
    return date.ok() ? std::optional<LogTime>(local_days(date)) : std::nullopt;
}

// "03:52" or "03:52:26".
std::optional<seconds> parse_clock(std::string_view text) {
    if ((text.size() != 5 && text.size() != 8) || text[2] != ':') {
        return std::nullopt;
    }
    const auto hour = digits(text.substr(0, 2));
    const auto minute = digits(text.substr(3, 2));
    const auto second = text.size() == 8 ? digits(text.substr(6)) : 0;
    if (!hour || !minute || !second || *hour > 23 || *minute > 59 || *second > 60) {
        return std::nullopt;
    }
    return hours(*hour) + minutes(*minute) + seconds(*second);
}

std::optional<LogTime> parse_stamp(std::string_view text) {
    const auto day = parse_day(text.substr(0, 10));
    const auto clock = day && text.size() > 11 ? parse_clock(text.substr(11)) : std::nullopt;
    return clock ? std::optional<LogTime>(*day + *clock) : std::nullopt;
}

std::optional<seconds> parse_span(std::string_view text) {
    const auto number = text.empty() ? std::nullopt : digits(text.substr(0, text.size() - 1));
    if (!number) {
        return std::nullopt;
    }
    switch (text.back()) {
        case 's':
            return seconds(*number);
        case 'm':
            return minutes(*number);
        case 'h':
            return hours(*number);
        case 'd':
            return days(*number);
        default:
            return std::nullopt;
    }
}

int level_of(std::string_view word) {
    const auto* found = std::find(LEVEL_WORDS.begin(), LEVEL_WORDS.end(), word);
    return found == LEVEL_WORDS.end() ? -1 : static_cast<int>(found - LEVEL_WORDS.begin());
}

// A message from its very first byte: "quorsyncd:2.1 2026-11-16 03:52:26 INFO :text".
std::optional<LogMessage> parse_whole(std::string_view line) {
    const std::size_t version_end = line.find(' ', LINE_START.size());
    if (version_end == std::string_view::npos || line.size() < version_end + STAMP_LENGTH + 2) {
        return std::nullopt;
    }
    const auto time = parse_stamp(line.substr(version_end + 1, STAMP_LENGTH));
    const std::size_t level_start = version_end + STAMP_LENGTH + 2;
    const std::size_t level_end = line.find(" :", level_start);
    if (!time || level_end == std::string_view::npos) {
        return std::nullopt;
    }
    return LogMessage{*time, level_of(line.substr(level_start, level_end - level_start)),
                      line.substr(level_end + 2)};
}

// The lines of a file. A longer one than the buffer comes in pieces.
class LineReader {
public:
    explicit LineReader(int fd) : fd_(fd), buffer_(std::make_unique<char[]>(BUFFER_SIZE)) {}

    bool next(std::string_view& line) {
        for (;;) {
            const std::string_view rest(buffer_.get() + start_, end_ - start_);
            const std::size_t newline = rest.find('\n', searched_);
            if (newline != std::string_view::npos) {
                return take(newline, 1, line);
            }
            searched_ = rest.size();
            if (rest.size() == BUFFER_SIZE || !fill()) {
                return take(searched_, 0, line);
            }
        }
    }

    bool failed() const { return failed_; }

private:
    bool take(std::size_t length, std::size_t newline, std::string_view& line) {
        line = std::string_view(buffer_.get() + start_, length);
        start_ += length + newline;
        searched_ = 0;
        return length + newline > 0;
    }

    // Reads more behind what is there; false at the end of the file.
    bool fill() {
        if (start_ != 0) {
            std::memmove(buffer_.get(), buffer_.get() + start_, end_ - start_);
            end_ -= start_;
            start_ = 0;
        }
        ssize_t got = 0;
        do {
            got = read(fd_, buffer_.get() + end_, BUFFER_SIZE - end_);
        } while (got < 0 && errno == EINTR);
        failed_ = got < 0;
        end_ += got > 0 ? static_cast<std::size_t>(got) : 0;
        return got > 0;
    }

    int fd_;
    std::unique_ptr<char[]> buffer_;
    std::size_t start_ = 0;
    std::size_t end_ = 0;
    std::size_t searched_ = 0;  // so much of the rest holds no newline
    bool failed_ = false;
};

struct CloseDirectory {
    void operator()(DIR* directory) const { (void)closedir(directory); }
};

}  // namespace

std::string_view without_origin(std::string_view text) {
    text = text.substr(0, text.find(" --"));
    return text.substr(0, text.find("---"));
}

std::optional<LogMessage> parse_log_line(std::string_view line) {
    // Only the rest of a message with a newline inside has one that begins later in the line.
    for (std::size_t at = line.starts_with(LINE_START) ? 0 : line.find(LINE_START);
         at != std::string_view::npos; at = line.find(LINE_START, at + 1)) {
        if (const auto message = parse_whole(line.substr(at))) {
            return message;
        }
    }
    return std::nullopt;
}

std::optional<std::vector<DailyLog>> daily_logs(const std::string& directory) {
    const std::unique_ptr<DIR, CloseDirectory> open(opendir(directory.c_str()));
    if (!open) {
        return std::nullopt;
    }
    const std::string START = PROGRAM_NAME + std::string("_");
    constexpr std::string_view END = ".log";
    std::vector<DailyLog> logs;
    while (const dirent* entry = readdir(open.get())) {
        const std::string_view name = entry->d_name;
        if (name.size() != START.size() + 10 + END.size() || !name.starts_with(START) ||
            !name.ends_with(END)) {
            continue;
        }
        if (const auto day = parse_day(name.substr(START.size(), 10))) {
            logs.push_back({directory + "/" + std::string(name), *day});
        }
    }
    std::sort(logs.begin(), logs.end(),
              [](const DailyLog& left, const DailyLog& right) { return left.day < right.day; });
    return logs;
}

bool visit_messages(const std::string& path, const MessageVisitor& visit) {
    const OwnedFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.valid()) {
        return false;
    }
    (void)posix_fadvise(fd.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    LineReader lines(fd.get());
    std::string_view line;
    while (lines.next(line)) {
        if (const auto message = parse_log_line(line)) {
            visit(*message);
        }
    }
    return !lines.failed();
}

LogTime log_time_now() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    return LogTime(seconds(timegm(&local)));
}

std::optional<LogTime> parse_since(std::string_view text, LogTime now) {
    const LogTime today = std::chrono::floor<days>(now);
    if (text == "today") {
        return today;
    }
    if (text == "yesterday") {
        return today - days(1);
    }
    if (const auto span = parse_span(text)) {
        return now - *span;
    }
    if (const auto clock = parse_clock(text)) {
        return today + *clock;
    }
    if (const auto day = parse_day(text)) {
        return day;
    }
    return parse_stamp(text);
}

std::string format_log_time(LogTime time) {
    const auto day = std::chrono::floor<days>(time);
    const std::chrono::year_month_day date(day);
    const std::chrono::hh_mm_ss clock(time - day);
    return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02}", static_cast<int>(date.year()),
                       static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                       clock.hours().count(), clock.minutes().count(), clock.seconds().count());
}
