// quorsyncctl timeline: what the daily logs tell.
#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <ctime>
#include <iterator>
#include <optional>
#include <string>

#include "ctl/console.h"
#include "ctl/moments.h"
#include "ctl/rows.h"
#include "ctl/verbs.h"
#include "log.h"
#include "picture_file.h"
#include "timeline.h"

namespace {

constexpr const char* NOTES = R"(
Starts, roles, take-overs with the time since the master's last answer, step-downs, data sets with
their records and rates, fetches and failures. "flapping" and "re-sync" name what needs attention
and lead to exit code 1.

Examples:
  quorsyncctl timeline -n 20
  quorsyncctl timeline --since 2h
  quorsyncctl timeline --since "2026-11-16 03:00" --json
  quorsyncctl timeline --html pair.html --dir logs/master --dir logs/slave)";

constexpr const char* DEFAULT_SINCE = "24h";

struct Options {
    std::vector<std::string> directories = {LOG_DIRECTORY};
    std::string since;  // empty: DEFAULT_SINCE, or all where so many events are wanted
    std::string last;   // so many events, or all
    std::string html;
    bool json = false;
};

Colour colour_of(EventKind kind) {
    switch (kind) {
        case EventKind::TAKE_OVER:
        case EventKind::STEP_DOWN:
            return Colour::BOLD;
        case EventKind::FLAPPING:
        case EventKind::RESYNC:
        case EventKind::TROUBLE:
            return Colour::RED;
        case EventKind::WAITING:
        case EventKind::SILENCE:
        case EventKind::SLAVE_SILENT:
        case EventKind::CLOCK:
            return Colour::YELLOW;
        default:
            return Colour::PLAIN;
    }
}

// Not where the text has it.
std::string repetition(const TimelineEvent& event) {
    if (event.count == 1 || event.kind == EventKind::FLAPPING) {
        return "";
    }
    return fmt::format(" ({} times until {})", event.count, format_log_time(event.until));
}

Json json_of(LogTime time) {
    const std::time_t moment = epoch_of(time);
    return json_moment(moment, std::max<long>(std::time(nullptr) - moment, 0));
}

Row row_of(const TimelineEvent& event) {
    Row row{{{format_log_time(event.time)},
             {std::string(kind_name(event.kind)), colour_of(event.kind)},
             {escape(event.text) + repetition(event)}},
            {{"at", json_of(event.time)},
             {"until", json_of(event.until)},
             {"kind", kind_name(event.kind)},
             {"count", event.count}}};
    const auto add_number = [&row](const char* name, std::optional<long> number) {
        if (number) {
            row.members.push_back({name, *number});
        }
    };
    add_number("seconds_from", event.seconds_from);
    add_number("seconds_to", event.seconds_to);
    add_number("records", event.records);
    row.members.push_back({"text", event.text});
    return row;
}

void check_options(const Options& options) {
    if (options.html.empty() && options.directories.size() > 1) {
        throw WrongUse("--dir", "several of them are only drawn, with --html FILE");
    }
    if (!options.html.empty() && options.json) {
        throw WrongUse("--html", "is another form than --json; choose one");
    }
    if (!options.html.empty() && !options.last.empty()) {
        throw WrongUse("-n", "is for the list of events; --since says from when on to draw");
    }
}

bool is_default_span(const Options& options) {
    return options.since.empty() && options.last.empty() &&
           options.directories.front() == LOG_DIRECTORY;
}

// Nothing for all.
std::optional<LogTime> begin_of(const Options& options) {
    const std::string since = is_default_span(options) ? DEFAULT_SINCE : options.since;
    if (since.empty() || since == "all") {
        return std::nullopt;
    }
    const auto begin = parse_since(since, log_time_now());
    if (!begin) {
        throw WrongUse("--since", "\"" + since +
                                      "\" is not a time; use \"2026-11-16 03:00\", \"03:00\", "
                                      "\"2h\", \"3d\", \"1w\", \"today\" or \"all\"");
    }
    return begin;
}

// Nothing for all.
std::optional<std::size_t> count_of(const Options& options) {
    if (options.last.empty()) {
        return std::nullopt;
    }
    std::size_t count = 0;
    const char* end = options.last.data() + options.last.size();
    const auto [rest, error] = std::from_chars(options.last.data(), end, count);
    if (error != std::errc() || rest != end || count == 0) {
        throw WrongUse("-n", "\"" + options.last + "\" is not a number of events");
    }
    return count;
}

void print_events(const Options& options, const std::optional<LogTime>& since, const Rows& rows) {
    const std::string begin = since ? " since " + format_log_time(*since) : "";
    const char* more = is_default_span(options) ? "; \"--since all\" tells everything" : "";
    if (rows.empty()) {
        say("Nothing happened{}{}.", begin, more);
    } else if (is_default_span(options)) {
        print_line(paint(Colour::DIM, fmt::format("What happened{}{}:", begin, more)));
    }
    print_table(rows);
}

int show_timeline(const Options& options) {
    check_options(options);
    const std::optional<LogTime> since = begin_of(options);
    const std::optional<std::size_t> count = count_of(options);
    if (!options.html.empty()) {
        return draw_timeline(options.html, options.directories, since);
    }
    const std::string& directory = options.directories.front();
    History history =
        count ? read_last_events(directory, since, *count) : read_history(directory, since);
    if (!history.failure.empty()) {
        complain("{}", history.failure);
        return EXIT_CANNOT_TELL;
    }
    complain_of_unread(history);
    reach_present(history.timeline, directory);
    std::vector<TimelineEvent> events = history.timeline.finish();
    if (count && *count < events.size()) {
        events.erase(events.begin(), events.end() - static_cast<std::ptrdiff_t>(*count));
    }
    Rows rows;
    std::transform(events.begin(), events.end(), std::back_inserter(rows), row_of);
    if (options.json) {
        Json::object({{"events", list_of(rows)}}).print();
    } else {
        print_events(options, since, rows);
    }
    return !history.unread.empty()   ? EXIT_CANNOT_TELL
           : wants_attention(events) ? EXIT_PROBLEM
                                     : EXIT_FINE;
}

}  // namespace

void add_timeline(const Command& tool) {
    const auto options = std::make_shared<Options>();
    tool.command("timeline", "Show what happened, from the daemon's logs.")
        .notes(NOTES)
        .option("--since TIME", options->since,
                "Begin at a time, a day, or so long ago: 30m, 2h, 3d, 1w, today, yesterday; all "
                "for everything; without it, --dir and -n: 24h")
        .option("-n,--last COUNT", options->last, "Only the last events, so many")
        .options("--dir", options->directories,
                 "Where the daily logs are; with --html, once for each server")
        .option("--html", options->html, "Draw a page with a lane for each server into this file")
        .flag("--json", options->json, "Print machine-readable output")
        .runs([options] { return show_timeline(*options); });
}
