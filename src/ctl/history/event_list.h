// What has happened to a pair: the events of its timeline. What comes again and again is one event
// with a count.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "log_reader.h"

enum class EventKind {
    WAITING,      // for a role
    START,        // with the role that was taken
    STOP,         // of a slave, by SIGTERM
    LAST_ANSWER,  // of the master, before a take-over
    TAKE_OVER,
    STEP_DOWN,
    SYNC,          // a slave got a data set
    PUSH,          // a master sent one
    FETCH,         // a master fetched a server's config.db
    TROUBLE,       // the daemon logged a failure
    SILENCE,       // a slave's heartbeat stood still
    CLOCK,         // the clock was set back
    FLAPPING,      // several take-overs in a short time
    RESYNC,        // the same transfer again and again
    MISSED,        // heartbeats of a slave that were not answered: only in the picture
    SLAVE_SILENT,  // its heartbeats do not come to its master
    SLAVE_BACK,
    CHANGE,  // by an operator, with the tool
};

// "take-over": the kind as it is called in all output.
std::string_view kind_name(EventKind kind);

// Times are those of the lines.
struct TimelineEvent {
    EventKind kind;
    LogTime time;
    LogTime until;  // its end, or its last repetition
    long count;
    std::string text;
    // Seconds since the last answer, as an acting master or of a transfer, as far as the lines
    // tell: at least and at most so many.
    std::optional<long> seconds_from;
    std::optional<long> seconds_to;
    std::optional<long> records;  // of a transfer
    bool failed = false;          // a transfer that did not come to its end
    std::string line;             // the first message that told of it
};

// Whether one of them is named as what an operator must look after.
bool wants_attention(const std::vector<TimelineEvent>& events);

// Repetitions within this time of each other belong together.
inline constexpr std::chrono::seconds TOGETHER{60};

inline constexpr long ENDLESS = 3;  // so often in a row is no accident; twice may be

inline long seconds_between(LogTime from, LogTime to) {
    return static_cast<long>(elapsed(from, to).count());
}

// Whether more than `span` passed between both. Mostly the times alone deny it, at less cost.
inline bool lasts_longer(LogTime from, LogTime to, std::chrono::seconds span) {
    return to - from > span && elapsed(from, to) > span;
}

class EventList {
public:
    // A new event; the reference holds until the next one.
    TimelineEvent& add(EventKind kind, LogTime time, std::string text);
    void add(TimelineEvent event) { events_.push_back(std::move(event)); }

    // The same event once more, or a new one when the last such was too long ago.
    TimelineEvent& repeat(EventKind kind, LogTime time, const std::string& text);

    std::size_t size() const { return events_.size(); }
    TimelineEvent& at(std::size_t index) { return events_[index]; }

    // Leaves the event out; the indices of the others stay.
    void remove(std::size_t index) { events_[index].count = 0; }

    // In order of time, `more` among them.
    std::vector<TimelineEvent> sorted(const std::vector<TimelineEvent>& more) const;

private:
    void forget_old(LogTime time);

    std::vector<TimelineEvent> events_;
    std::map<std::string, std::size_t> repeated_;  // index of the last one, by kind and text
};
