// quorsyncctl timeline: what the daily logs tell.
#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <optional>
#include <string>

#include "ctl/console.h"
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
  quorsyncctl timeline --since 2h
  quorsyncctl timeline --since "2026-11-16 03:00" --json
  quorsyncctl timeline --html pair.html --dir logs/master --dir logs/slave)";

struct Options {
    std::vector<std::string> directories = {LOG_DIRECTORY};
    std::string since;
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

Row row_of(const TimelineEvent& event) {
    Row row{{{format_log_time(event.time)},
             {std::string(kind_name(event.kind)), colour_of(event.kind)},
             {escape(event.text) + repetition(event)}},
            {{"time", format_log_time(event.time)},
             {"until", format_log_time(event.until)},
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
}

int show_timeline(const Options& options) {
    check_options(options);
    std::optional<LogTime> since;
    if (!options.since.empty()) {
        since = parse_since(options.since, log_time_now());
        if (!since) {
            throw WrongUse("--since", "\"" + options.since +
                                          "\" is not a time; use "
                                          "\"2026-11-16 03:00\", \"03:00\", \"2h\" or \"today\"");
        }
    }
    if (!options.html.empty()) {
        return draw_timeline(options.html, options.directories, since);
    }
    History history = read_history(options.directories.front(), since);
    if (!history.failure.empty()) {
        complain("{}", history.failure);
        return EXIT_CANNOT_TELL;
    }
    const std::vector<TimelineEvent> events = history.timeline.finish();
    Rows rows;
    std::transform(events.begin(), events.end(), std::back_inserter(rows), row_of);
    if (options.json) {
        Json::object({{"events", list_of(rows)}}).print();
    } else if (events.empty()) {
        say("Nothing happened{}.", since ? " since " + format_log_time(*since) : "");
    } else {
        print_table(rows);
    }
    return wants_attention(events) ? EXIT_PROBLEM : EXIT_FINE;
}

}  // namespace

void add_timeline(const Command& tool) {
    const auto options = std::make_shared<Options>();
    tool.command("timeline", "Show what happened, from the daemon's logs.")
        .notes(NOTES)
        .option("--since", options->since,
                "Begin at a time, a day, or so long ago: 30m, 2h, 3d, today, yesterday")
        .options("--dir", options->directories,
                 "Where the daily logs are; with --html, once for each server")
        .option("--html", options->html, "Draw a page with a lane for each server into this file")
        .flag("--json", options->json, "Print machine-readable output")
        .runs([options] { return show_timeline(*options); });
}
