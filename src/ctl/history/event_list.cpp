#include "event_list.h"

#include <algorithm>
#include <array>

namespace {

constexpr std::size_t MAX_REPEATED = 512;

}  // namespace

std::string_view kind_name(EventKind kind) {
    constexpr std::array<std::string_view, 18> NAMES = {
        "waiting",  "start",   "stop",   "last-answer",  "take-over",  "step-down",
        "sync",     "push",    "fetch",  "trouble",      "silence",    "clock",
        "flapping", "re-sync", "missed", "slave-silent", "slave-back", "change"};
    return NAMES[static_cast<std::size_t>(kind)];
}

bool wants_attention(const std::vector<TimelineEvent>& events) {
    return std::any_of(events.begin(), events.end(), [](const TimelineEvent& event) {
        return event.kind == EventKind::FLAPPING || event.kind == EventKind::RESYNC;
    });
}

TimelineEvent& EventList::add(EventKind kind, LogTime time, std::string text) {
    events_.push_back({kind, time, time, 1, std::move(text), {}, {}, {}, false, {}});
    return events_.back();
}

TimelineEvent& EventList::repeat(EventKind kind, LogTime time, const std::string& text) {
    forget_old(time);
    const auto [entry, fresh] =
        repeated_.try_emplace(std::string(kind_name(kind)) + " " + text, events_.size());
    if (!fresh && time - events_[entry->second].until <= TOGETHER) {
        TimelineEvent& event = events_[entry->second];
        ++event.count;
        event.until = std::max(event.until, time);
        return event;
    }
    entry->second = events_.size();
    return add(kind, time, text);
}

// Texts hold addresses and keys: never more of them than memory should hold.
void EventList::forget_old(LogTime time) {
    if (repeated_.size() < MAX_REPEATED) {
        return;
    }
    std::erase_if(repeated_, [this, time](const auto& entry) {
        return time - events_[entry.second].until > TOGETHER;
    });
    if (repeated_.size() >= MAX_REPEATED) {
        repeated_.clear();
    }
}

std::vector<TimelineEvent> EventList::sorted(const std::vector<TimelineEvent>& more) const {
    std::vector<TimelineEvent> events = events_;
    events.insert(events.end(), more.begin(), more.end());
    std::erase_if(events, [](const TimelineEvent& event) { return event.count == 0; });
    std::stable_sort(events.begin(), events.end(),
                     [](const TimelineEvent& left, const TimelineEvent& right) {
                         return left.time < right.time;
                     });
    return events;
}
