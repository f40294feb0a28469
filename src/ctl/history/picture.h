// The picture of a timeline as a model: what stands where, and nothing about how it is drawn. It
// never holds more than a page can show, however much has happened.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "event_list.h"
#include "role_bands.h"

struct TimeRange {
    LogTime from;
    LogTime until;
};

// What one server's log tells.
struct ServerHistory {
    std::string name;       // its address, or what else the reader knows it by
    std::string directory;  // of its logs
    std::vector<RoleBand> bands;
    std::vector<TimelineEvent> events;
};

// Positions are parts of the picture's width, from 0 to 1.
struct Tick {
    double at;
    std::string label;
    bool minor;  // left out where there is little width
};

struct Band {
    BandKind kind;
    TimeRange time;  // all of it, though the picture may begin and end within
    double from;
    double to;
    long merged;  // so many changes of role, too short to be told apart; 0 for a single band
};

enum class MarkRow { ROLE, BEATS, DATA, TROUBLE };

// Where an event of that kind stands; nowhere if another event tells of it.
std::optional<MarkRow> row_of(EventKind kind);

// One event, or several that lie too close together to be told apart.
struct Mark {
    MarkRow row;
    TimeRange time;
    double at;  // of the event that matters most
    double from;
    double to;
    double room;  // between its end and the next mark of the row, or the edge
    long count;   // of all its events, repetitions included
    long records;
    long failed;                      // so many transfers of them did not come to their end
    std::vector<TimelineEvent> told;  // those that matter most, the foremost first
    std::size_t untold;               // further events

    EventKind kind() const { return told.front().kind; }
};

struct Lane {
    std::string name;
    std::string directory;
    std::vector<Band> bands;
    std::vector<std::pair<BandKind, long>> seconds;  // in each role, in order of the first time
    std::vector<Mark> marks;                         // by row, then by time
};

struct Picture {
    TimeRange range;
    std::vector<Tick> ticks;
    std::vector<Lane> lanes;
    std::vector<std::pair<EventKind, long>> totals;  // of all events in the range, by kind
    long broken_transfers = 0;
};

// Marks of a row that are closer together than this part of the width are drawn as one.
inline constexpr double MARK_SPACING = 1.0 / 100;

// From the first to the last message of all servers; from `otherwise` on where nothing was logged.
// At least some seconds.
TimeRange range_of(const std::vector<ServerHistory>& servers, LogTime otherwise);

// A pure function. What lies outside the range is left out.
Picture lay_out(const std::vector<ServerHistory>& servers, TimeRange range);
