#include "picture_html.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <set>
#include <string_view>

#include "ctl/characters.h"
#include "ctl/console.h"
#include "picture_style.h"

namespace {

constexpr std::size_t LONGEST_TEXT = 200;  // columns

// A text that does not fit in the lanes of a page is left out. Its width is estimated.
constexpr double NARROW_LANE = 336;  // pixels
constexpr double MIDDLE_LANE = 560;
constexpr double WIDE_LANE = 1060;
constexpr double LETTER = 7.5;
constexpr double MARGIN = 24;

constexpr double THINNEST = 0.001;  // part of the width that is drawn at least

constexpr int LANE_HEIGHT = 110;

// The middle of a row of marks.
constexpr std::array<int, 4> ROW_Y = {0, 52, 73, 97};
constexpr std::array<std::string_view, 4> ROW_NAMES = {"role", "heartbeats", "data", "trouble"};
constexpr int BAND_Y = 14;
constexpr int BAND_HEIGHT = 26;

constexpr std::array<std::string_view, 7> BAND_CLASSES = {"unknown", "waiting", "master", "slave",
                                                          "acting",  "stopped", "silent"};

template <typename... Arguments>
void put(std::string& page, fmt::format_string<Arguments...> format, Arguments&&... arguments) {
    fmt::format_to(std::back_inserter(page), format, std::forward<Arguments>(arguments)...);
}

// Any bytes as the text of an element or of an attribute.
std::string html(std::string_view bytes) {
    std::string text;
    for (const char byte : shortened(escape(bytes), LONGEST_TEXT)) {
        switch (byte) {
            case '&':
                text += "&amp;";
                break;
            case '<':
                text += "&lt;";
                break;
            case '>':
                text += "&gt;";
                break;
            case '"':
                text += "&quot;";
                break;
            case '\'':
                text += "&#39;";
                break;
            default:
                text += byte;
        }
    }
    return text;
}

std::string percent(double part) {
    return fmt::format("{:.2f}%", 100 * part);
}

// The later time without its day if that is the same.
std::string time_text(TimeRange range) {
    const std::string from = format_log_time(range.from);
    const std::string until = format_log_time(range.until);
    if (from == until) {
        return from;
    }
    const bool same_day = from.substr(0, 10) == until.substr(0, 10);
    return from + " to " + (same_day ? until.substr(11) : until);
}

// "23 h 51 min", "9 s".
std::string length_text(long seconds) {
    if (seconds < 120) {
        return fmt::format("{} s", seconds);
    }
    const long minutes = seconds / 60;
    return minutes < 60 ? fmt::format("{} min", minutes)
                        : fmt::format("{} h {} min", minutes / 60, minutes % 60);
}

bool fits(std::string_view text, double room, double lane) {
    return static_cast<double>(text.size()) * LETTER + MARGIN <= room * lane;
}

// The class of a text that fits on a wide page: it says on which it is shown.
std::string_view width_class(std::string_view text, double room) {
    return fits(text, room, NARROW_LANE) ? "" : fits(text, room, MIDDLE_LANE) ? " middle" : " wide";
}

// How the head of the page calls a kind of events, those first that matter most.
struct Noun {
    EventKind kind;
    std::string_view one;
    std::string_view many;
    bool wrong;
};
constexpr std::array NOUNS = {
    Noun{EventKind::TAKE_OVER, "take-over", "take-overs", true},
    Noun{EventKind::FLAPPING, "time of flapping", "times of flapping", true},
    Noun{EventKind::RESYNC, "endless re-sync", "endless re-syncs", true},
    Noun{EventKind::SILENCE, "standstill", "standstills", true},
    Noun{EventKind::SLAVE_SILENT, "time of a silent slave", "times of a silent slave", true},
    Noun{EventKind::TROUBLE, "failure", "failures", true},
    Noun{EventKind::MISSED, "missed heartbeat", "missed heartbeats", true},
    Noun{EventKind::WAITING, "wait for a role", "waits for a role", true},
    Noun{EventKind::CLOCK, "clock set back", "clocks set back", true},
    Noun{EventKind::STOP, "stop", "stops", true},
    Noun{EventKind::START, "start", "starts", false},
    Noun{EventKind::STEP_DOWN, "step-down", "step-downs", false},
    Noun{EventKind::PUSH, "set sent", "sets sent", false},
    Noun{EventKind::SYNC, "set received", "sets received", false},
    Noun{EventKind::FETCH, "fetch", "fetches", false},
    Noun{EventKind::CHANGE, "change by an operator", "changes by an operator", false}};

// How many of them the picture tells of.
long total_of(const Picture& picture, EventKind kind) {
    const auto total = std::find_if(picture.totals.begin(), picture.totals.end(),
                                    [kind](const auto& known) { return known.first == kind; });
    return total == picture.totals.end() ? 0 : total->second;
}

// --- Head --------------------------------------------------------------------------------------

// "What went wrong: 1 take-over, 3 missed heartbeats".
void put_totals(std::string& page, const Picture& picture, bool wrong) {
    std::string text;
    for (const Noun& noun : NOUNS) {
        const long total = total_of(picture, noun.kind);
        if (noun.wrong == wrong && total > 0) {
            text += fmt::format("{}{} {}", text.empty() ? "" : ", ", total,
                                total == 1 ? noun.one : noun.many);
        }
    }
    if (wrong && picture.broken_transfers > 0) {
        text +=
            fmt::format("{}{} broken off", text.empty() ? "" : ", ",
                        counted(static_cast<std::size_t>(picture.broken_transfers), "transfer"));
    }
    if (wrong) {
        put(page, "<p{}>What went wrong: {}</p>\n", text.empty() ? "" : " class=\"bad\"",
            text.empty() ? "nothing" : text);
    } else if (!text.empty()) {
        put(page, "<p>Besides: {}</p>\n", text);
    }
}

void put_head(std::string& page, const Picture& picture) {
    std::string names;
    for (const Lane& lane : picture.lanes) {
        names += (names.empty() ? "" : " and ") + html(lane.name);
    }
    put(page,
        "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
        "<meta name=\"viewport\" content=\"width=device-width,initial-scale=1\">"
        "<meta http-equiv=\"Content-Security-Policy\" "
        "content=\"default-src 'none';style-src 'unsafe-inline'\">"
        "<title>Timeline of {}</title><style>{}</style></head>\n<body>{}<h1>Timeline of {}</h1>\n"
        "<p class=\"soft\">{}, by each server's own clock</p>\n",
        names, PICTURE_STYLE, PICTURE_SIGNS, names, time_text(picture.range));
    put_totals(page, picture, true);
    put_totals(page, picture, false);
}

// --- Axis and lanes ----------------------------------------------------------------------------

void put_axis(std::string& page, const Picture& picture) {
    page +=
        "<div class=\"row axis\"><div class=\"names\"></div><svg class=\"l\" role=\"img\" "
        "aria-label=\"time axis\">";
    for (const Tick& tick : picture.ticks) {
        const std::string x = percent(tick.at);
        put(page,
            "<line class=\"tick\" x1=\"{0}\" x2=\"{0}\" y1=\"17\" y2=\"22\"/>"
            "<text class=\"{1}\" x=\"{0}\" y=\"12\" text-anchor=\"{2}\">{3}</text>",
            x, tick.minor ? "middle" : "",
            tick.at < 0.05   ? "start"
            : tick.at > 0.95 ? "end"
                             : "middle",
            tick.label);
    }
    page += "</svg></div>\n";
}

// A drawing of its own cuts the text off at the end of the band.
void put_band(std::string& page, const Band& band) {
    const double width = band.to - band.from;
    const std::string name(band_name(band.kind));
    put(page,
        "<svg class=\"b {}{}\" x=\"{}\" y=\"{}\" width=\"{}\" height=\"{}\" "
        "style=\"overflow:hidden\"><title>{}{}, {}</title>"
        "<rect width=\"100%\" height=\"100%\"/>",
        BAND_CLASSES[static_cast<std::size_t>(band.kind)], band.merged > 0 ? " changing" : "",
        percent(band.from), BAND_Y, percent(std::max(width, THINNEST)), BAND_HEIGHT, name,
        band.merged > 0 ? fmt::format(" and {} further changes of role", band.merged - 1) : "",
        time_text(band.time));
    if (fits(name, width, WIDE_LANE)) {
        put(page, "<text class=\"{}\" x=\"7\" y=\"17\">{}</text>", width_class(name, width), name);
    }
    page += "</svg>";
}

// Not where the text has it.
std::string times_text(const TimelineEvent& event) {
    const bool has_count = event.kind == EventKind::FLAPPING || event.kind == EventKind::MISSED;
    return event.count == 1 || has_count ? "" : fmt::format(" {} times:", event.count);
}

// What the foremost events of the mark say, with their log lines.
void put_told(std::string& page, const Mark& mark, std::size_t most) {
    const std::size_t shown = std::min(most, mark.told.size());
    for (std::size_t n = 0; n < shown; ++n) {
        const TimelineEvent& event = mark.told[n];
        put(page, "<p>{} <b>{}</b>{} {}", time_text({event.time, event.until}),
            kind_name(event.kind), times_text(event), html(event.text));
        if (!event.line.empty()) {
            put(page, "<br><code>{}</code>", html(event.line));
        }
        page += "</p>";
    }
    if (const std::size_t more = mark.told.size() - shown + mark.untold; more > 0) {
        put(page, "<p>and {} more until {}</p>", more, format_log_time(mark.time.until));
    }
}

void put_sign(std::string& page, const Mark& mark) {
    const int y = ROW_Y[static_cast<std::size_t>(mark.row)];
    const bool is_bar = mark.row == MarkRow::BEATS;
    if (is_bar || (mark.row != MarkRow::ROLE && mark.to > mark.from)) {
        const int height = is_bar ? 10 : 2;
        put(page, "<rect x=\"{}\" y=\"{}\" width=\"{}\" height=\"{}\" stroke-width=\"3\"/>",
            percent(mark.from), y - height / 2, percent(std::max(mark.to - mark.from, THINNEST)),
            height);
    }
    if (!is_bar) {
        put(page, "<use href=\"#s-{}\" x=\"{}\" y=\"{}\"/>", kind_name(mark.kind()),
            percent(mark.at), y);
    }
}

// What stands beside the sign: the records of a transfer, or how many events it is.
void put_number(std::string& page, const Mark& mark) {
    const bool has_records = mark.row == MarkRow::DATA && mark.records > 0;
    const std::string text =
        has_records ? fmt::format("{}", mark.records) : fmt::format("x{}", mark.count);
    if (text == "x1" || !fits(text, mark.room, WIDE_LANE)) {
        return;
    }
    const bool is_role = mark.row == MarkRow::ROLE;
    put(page, "<text class=\"n{}\" x=\"{}\" y=\"{}\" dx=\"{}\">{}</text>",
        width_class(text, mark.room), percent(is_role ? mark.at : std::max(mark.at, mark.to)),
        is_role ? 10 : ROW_Y[static_cast<std::size_t>(mark.row)] + 4, is_role ? 17 : 12, text);
}

void put_mark(std::string& page, const Mark& mark, std::size_t number) {
    put(page, "<a class=\"m {}{}\" href=\"#e{}\" aria-label=\"{} {}\">", kind_name(mark.kind()),
        mark.failed > 0 ? " failed" : "", number, kind_name(mark.kind()),
        format_log_time(mark.told.front().time));
    put_sign(page, mark);
    put_number(page, mark);
    put(page,
        "<foreignObject class=\"t\" x=\"0\" y=\"{}\" width=\"100%\" height=\"1\" "
        "style=\"overflow:visible\"><div>",
        LANE_HEIGHT + 2);
    put_told(page, mark, mark.untold > 0 ? 1 : mark.told.size());
    page += "</div></foreignObject></a>\n";
}

void put_lane_head(std::string& page, const Lane& lane) {
    std::string shares;
    for (const auto& [kind, seconds] : lane.seconds) {
        shares += fmt::format("{}{} {}", shares.empty() ? "" : ", ", band_name(kind),
                              length_text(seconds));
    }
    put(page, "<section class=\"lane\"><h2>{}<small>{}</small><small>{}</small></h2>\n",
        html(lane.name), shares.empty() ? "nothing logged" : shares, html(lane.directory));
    page += "<div class=\"row\"><div class=\"names\" aria-hidden=\"true\">";
    for (std::size_t row = 0; row < ROW_NAMES.size(); ++row) {
        put(page, "<span style=\"top:{}px\">{}</span>", row == 0 ? BAND_Y + 4 : ROW_Y[row] - 9,
            ROW_NAMES[row]);
    }
    put(page, "</div><svg class=\"l\" role=\"group\" aria-label=\"{}\">", html(lane.name));
}

// A mark and where it belongs; its number leads from the picture to the table.
struct NumberedMark {
    const Lane* lane;
    const Mark* mark;
    std::size_t number;
};

void put_lane(std::string& page, const Picture& picture, const Lane& lane,
              std::size_t first_number) {
    put_lane_head(page, lane);
    for (const Tick& tick : picture.ticks) {
        put(page, "<line class=\"grid\" x1=\"{0}\" x2=\"{0}\" y1=\"0\" y2=\"{1}\"/>",
            percent(tick.at), LANE_HEIGHT);
    }
    page += '\n';
    for (const Band& band : lane.bands) {
        put_band(page, band);
    }
    page += '\n';
    for (const Mark& mark : lane.marks) {
        put_mark(page, mark, first_number++);
    }
    page += "</svg></div></section>\n";
}

// --- Legend and table --------------------------------------------------------------------------

void put_role_legend(std::string& page, const Picture& picture) {
    std::set<BandKind> kinds;
    for (const Lane& lane : picture.lanes) {
        for (const auto& [kind, seconds] : lane.seconds) {
            kinds.insert(kind);
        }
    }
    for (const BandKind kind : kinds) {
        put(page,
            "<li><svg class=\"b {}\" aria-hidden=\"true\">"
            "<rect x=\"1\" y=\"4\" width=\"16\" height=\"10\"/></svg>{}</li>",
            BAND_CLASSES[static_cast<std::size_t>(kind)], band_name(kind));
    }
}

// A sign by itself: where it stands in the width of a small drawing, so that all of it is seen.
int legend_x(EventKind kind) {
    return kind == EventKind::TAKE_OVER ? 2 : kind == EventKind::STEP_DOWN ? 16 : 9;
}

void put_legend(std::string& page, const Picture& picture) {
    page += "<ul class=\"legend\">";
    put_role_legend(page, picture);
    for (const Noun& noun : NOUNS) {
        if (total_of(picture, noun.kind) == 0) {
            continue;
        }
        const bool is_bar = row_of(noun.kind) == MarkRow::BEATS;
        const bool is_role = row_of(noun.kind) == MarkRow::ROLE;
        put(page, "<li><svg class=\"m {0}\" aria-hidden=\"true\">{1}</svg>{0}</li>",
            kind_name(noun.kind),
            is_bar ? std::string("<rect x=\"2\" y=\"5\" width=\"14\" height=\"8\"/>")
                   : fmt::format("<use href=\"#s-{}\" x=\"{}\" y=\"{}\"/>", kind_name(noun.kind),
                                 legend_x(noun.kind), is_role ? 2 : 9));
    }
    page +=
        "<li>Numbers: records of a data set; x3: three events in one sign. Hover over a sign or "
        "step to it with the Tab key to read its log line; below, all are listed.</li></ul>\n";
}

void put_row(std::string& page, const NumberedMark& entry) {
    const Mark& mark = *entry.mark;
    put(page, "<tr id=\"e{}\"><td class=\"w\">{}</td><td>", entry.number, html(entry.lane->name));
    put_told(page, mark, mark.told.size());
    page += "</td></tr>\n";
}

void put_table(std::string& page, std::vector<NumberedMark> entries) {
    std::stable_sort(entries.begin(), entries.end(), [](const auto& left, const auto& right) {
        return left.mark->time.from < right.mark->time.from;
    });
    page +=
        "<table><thead><tr><th>Server</th><th>What happened</th></tr></thead>"
        "<tbody>\n";
    for (const NumberedMark& entry : entries) {
        put_row(page, entry);
    }
    page += "</tbody></table>\n";
}

}  // namespace

std::string html_of(const Picture& picture) {
    std::string page;
    put_head(page, picture);
    put_axis(page, picture);
    std::vector<NumberedMark> entries;
    for (const Lane& lane : picture.lanes) {
        put_lane(page, picture, lane, entries.size());
        for (const Mark& mark : lane.marks) {
            entries.push_back({&lane, &mark, entries.size()});
        }
    }
    put_legend(page, picture);
    put_table(page, std::move(entries));
    return page + "</body></html>\n";
}
