#include "picture.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <map>
#include <optional>

namespace {

using std::chrono::days;
using std::chrono::hours;
using std::chrono::minutes;
using std::chrono::seconds;

constexpr seconds SHORTEST_RANGE{10};
constexpr double SHORTEST_BAND = 1.0 / 400;
constexpr std::size_t MAX_TOLD = 3;
constexpr long MAX_TICKS = 6;  // their labels must not touch

double position(LogTime time, TimeRange range) {
    const auto part = static_cast<double>((time - range.from).count());
    return std::clamp(part / static_cast<double>((range.until - range.from).count()), 0.0, 1.0);
}

bool lies_in(LogTime from, LogTime until, TimeRange range) {
    return until >= range.from && from <= range.until;
}

// --- The axis ----------------------------------------------------------------------------------

seconds tick_step(seconds length) {
    constexpr std::array<seconds, 20> STEPS = {
        seconds(1), seconds(2), seconds(5),  seconds(10), seconds(15), seconds(30), minutes(1),
        minutes(2), minutes(5), minutes(10), minutes(15), minutes(30), hours(1),    hours(2),
        hours(3),   hours(4),   hours(6),    hours(12),   days(1),     days(2)};
    const auto* fits = std::find_if(STEPS.begin(), STEPS.end(),
                                    [length](seconds step) { return length / step <= MAX_TICKS; });
    return fits == STEPS.end() ? days(length / (days(1) * MAX_TICKS) + 1) : *fits;
}

// The day at midnight, else the time of day.
std::string tick_label(LogTime time, seconds step) {
    const std::string text = format_log_time(time);
    if (time == std::chrono::floor<days>(time)) {
        return text.substr(5, 5);
    }
    return text.substr(11, step < minutes(1) ? 8 : 5);
}

std::vector<Tick> ticks_of(TimeRange range) {
    const seconds step = tick_step(range.until - range.from);
    const seconds since_midnight = range.from - std::chrono::floor<days>(range.from);
    LogTime time = range.from + (step - since_midnight % step) % step;
    std::vector<Tick> ticks;
    for (bool minor = false; time <= range.until; time += step, minor = !minor) {
        ticks.push_back({position(time, range), tick_label(time, step), minor});
    }
    return ticks;
}

// --- Roles -------------------------------------------------------------------------------------

Band band_in(const RoleBand& band, TimeRange range) {
    return {band.kind,
            {band.from, band.until},
            position(band.from, range),
            position(band.until, range),
            0};
}

bool is_short(const Band& band) {
    return band.to - band.from < SHORTEST_BAND;
}

// Short bands that follow each other become one.
void add_band(std::vector<Band>& bands, const Band& band) {
    if (bands.empty() || !is_short(band) || !(is_short(bands.back()) || bands.back().merged > 0)) {
        bands.push_back(band);
        return;
    }
    Band& last = bands.back();
    last.merged += last.merged == 0 ? 2 : 1;
    last.time.until = std::max(last.time.until, band.time.until);
    last.to = std::max(last.to, band.to);
    last.kind = last.kind == BandKind::ACTING ? last.kind : band.kind;
}

std::vector<Band> bands_of(const ServerHistory& server, TimeRange range) {
    std::vector<Band> bands;
    for (const RoleBand& band : server.bands) {
        if (lies_in(band.from, band.until, range)) {
            add_band(bands, band_in(band, range));
        }
    }
    return bands;
}

std::vector<std::pair<BandKind, long>> seconds_by_role(const ServerHistory& server,
                                                       TimeRange range) {
    std::vector<std::pair<BandKind, long>> sums;
    for (const RoleBand& band : server.bands) {
        if (!lies_in(band.from, band.until, range)) {
            continue;
        }
        auto sum = std::find_if(sums.begin(), sums.end(),
                                [&band](const auto& known) { return known.first == band.kind; });
        if (sum == sums.end()) {
            sum = sums.insert(sums.end(), {band.kind, 0});
        }
        sum->second +=
            seconds_between(std::max(band.from, range.from), std::min(band.until, range.until));
    }
    return sums;
}

// --- Events ------------------------------------------------------------------------------------

// Among events that are drawn as one, the one with the greatest number stands for them.
int weight(const TimelineEvent& event) {
    switch (event.kind) {
        case EventKind::FLAPPING:
        case EventKind::TAKE_OVER:
        case EventKind::SILENCE:
            return 3;
        case EventKind::RESYNC:
        case EventKind::STEP_DOWN:
            return 2;
        case EventKind::TROUBLE:
        case EventKind::STOP:
            return 1;
        case EventKind::PUSH:
        case EventKind::SYNC:
            return event.failed ? 2 : 1;
        default:
            return event.failed ? 1 : 0;
    }
}

void tell(Mark& mark, const TimelineEvent& event) {
    const auto place = std::find_if(
        mark.told.begin(), mark.told.end(),
        [&event](const TimelineEvent& known) { return weight(known) < weight(event); });
    mark.told.insert(place, event);
    if (mark.told.size() > MAX_TOLD) {
        mark.told.pop_back();
        ++mark.untold;
    }
}

void add_event(std::vector<Mark>& marks, MarkRow row, const TimelineEvent& event, TimeRange range) {
    const double from = position(event.time, range);
    // A fetch that was repeated did not last until then.
    const double to = event.kind == EventKind::FETCH ? from : position(event.until, range);
    if (marks.empty() || marks.back().row != row || from - marks.back().from >= MARK_SPACING) {
        marks.push_back({row, {event.time, event.until}, from, from, to, 0, 0, 0, 0, {}, 0});
    }
    Mark& mark = marks.back();
    mark.time.until = std::max(mark.time.until, event.until);
    mark.to = std::max(mark.to, to);
    mark.count += event.count;
    mark.records += event.records.value_or(0);
    mark.failed += event.failed ? event.count : 0;
    tell(mark, event);
    mark.at = position(mark.told.front().time, range);
}

void measure_room(std::vector<Mark>& marks) {
    for (std::size_t n = 0; n < marks.size(); ++n) {
        const bool is_last = n + 1 == marks.size() || marks[n + 1].row != marks[n].row;
        marks[n].room = (is_last ? 1.0 : marks[n + 1].from) - std::max(marks[n].at, marks[n].to);
    }
}

std::vector<Mark> marks_of(const ServerHistory& server, TimeRange range) {
    std::map<MarkRow, std::vector<const TimelineEvent*>> rows;
    for (const TimelineEvent& event : server.events) {
        const auto row = row_of(event.kind);
        if (row && lies_in(event.time, event.until, range)) {
            rows[*row].push_back(&event);
        }
    }
    std::vector<Mark> marks;
    for (auto& [row, events] : rows) {
        std::stable_sort(events.begin(), events.end(), [](const auto* left, const auto* right) {
            return left->time < right->time;
        });
        for (const TimelineEvent* event : events) {
            add_event(marks, row, *event, range);
        }
    }
    measure_room(marks);
    return marks;
}

// The count of these says what they consist of.
bool counts_once(EventKind kind) {
    return kind == EventKind::FLAPPING || kind == EventKind::RESYNC || kind == EventKind::WAITING;
}

std::vector<std::pair<EventKind, long>> totals_of(const std::vector<ServerHistory>& servers,
                                                  TimeRange range) {
    std::map<EventKind, long> totals;
    for (const ServerHistory& server : servers) {
        for (const TimelineEvent& event : server.events) {
            if (lies_in(event.time, event.until, range)) {
                totals[event.kind] += counts_once(event.kind) ? 1 : event.count;
            }
        }
    }
    return {totals.begin(), totals.end()};
}

}  // namespace

std::optional<MarkRow> row_of(EventKind kind) {
    switch (kind) {
        case EventKind::LAST_ANSWER:
        case EventKind::SLAVE_BACK:
            return std::nullopt;
        case EventKind::START:
        case EventKind::STOP:
        case EventKind::TAKE_OVER:
        case EventKind::STEP_DOWN:
            return MarkRow::ROLE;
        case EventKind::MISSED:
        case EventKind::SILENCE:
        case EventKind::SLAVE_SILENT:
            return MarkRow::BEATS;
        case EventKind::SYNC:
        case EventKind::PUSH:
        case EventKind::FETCH:
        case EventKind::CHANGE:
            return MarkRow::DATA;
        default:
            return MarkRow::TROUBLE;
    }
}

TimeRange range_of(const std::vector<ServerHistory>& servers, LogTime otherwise) {
    std::optional<TimeRange> range;
    for (const ServerHistory& server : servers) {
        for (const RoleBand& band : server.bands) {
            range = TimeRange{range ? std::min(range->from, band.from) : band.from,
                              range ? std::max(range->until, band.until) : band.until};
        }
    }
    const TimeRange whole = range.value_or(TimeRange{otherwise, otherwise});
    return {whole.from, std::max(whole.until, whole.from + SHORTEST_RANGE)};
}

Picture lay_out(const std::vector<ServerHistory>& servers, TimeRange range) {
    Picture picture{range, ticks_of(range), {}, totals_of(servers, range)};
    std::transform(servers.begin(), servers.end(), std::back_inserter(picture.lanes),
                   [range](const ServerHistory& server) {
                       return Lane{server.name, server.directory, bands_of(server, range),
                                   seconds_by_role(server, range), marks_of(server, range)};
                   });
    for (const Lane& lane : picture.lanes) {
        for (const Mark& mark : lane.marks) {
            picture.broken_transfers += mark.failed;
        }
    }
    return picture;
}
