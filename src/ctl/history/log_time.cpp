#include "log_time.h"

#include <fmt/format.h>

#include <charconv>
#include <ctime>

namespace {

using std::chrono::days;
using std::chrono::hours;
using std::chrono::local_days;
using std::chrono::minutes;
using std::chrono::seconds;

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
        case 'w':
            return std::chrono::weeks(*number);
        default:
            return std::nullopt;
    }
}

// Of local time from UTC, in seconds.
long offset_at(std::time_t moment) {
    std::tm local{};
    localtime_r(&moment, &local);
    return local.tm_gmtoff;
}

}  // namespace

LogTime log_time_now() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    return LogTime(seconds(timegm(&local)));
}

std::time_t epoch_of(LogTime time) {
    const std::time_t as_utc = time.time_since_epoch().count();
    std::tm local{};
    gmtime_r(&as_utc, &local);
    local.tm_isdst = -1;
    return std::mktime(&local);
}

std::chrono::seconds elapsed(LogTime from, LogTime to) {
    return seconds(epoch_of(to) - epoch_of(from));
}

bool zone_went_back(LogTime from, LogTime to) {
    constexpr std::time_t AROUND = 3 * 3600;  // more than any zone goes back
    constexpr std::time_t TOGETHER = 60;
    const std::time_t about = epoch_of(to);
    const long before = offset_at(about - AROUND);
    const long after = offset_at(about + AROUND);
    const std::time_t first = from.time_since_epoch().count() - before;
    const std::time_t second = to.time_since_epoch().count() - after;
    return offset_at(first) == before && offset_at(second) == after && first <= second &&
           second - first <= TOGETHER;
}

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

std::optional<LogTime> parse_stamp(std::string_view text) {
    const auto day = parse_day(text.substr(0, 10));
    const auto clock = day && text.size() > 11 ? parse_clock(text.substr(11)) : std::nullopt;
    return clock ? std::optional<LogTime>(*day + *clock) : std::nullopt;
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
