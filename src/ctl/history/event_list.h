// The events of a timeline while it is being told, and what the tellers of its stories share.
#pragma once

#include <algorithm>
#include <array>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "timeline.h"

// Repetitions within this time of each other belong together.
inline constexpr std::chrono::seconds TOGETHER{60};

inline constexpr long ENDLESS = 3;  // so often in a row is no accident; twice may be

inline long seconds_between(LogTime from, LogTime to) {
    return static_cast<long>((to - from).count());
}

class EventList {
public:
    // A new event; the reference holds until the next one.
    TimelineEvent& add(EventKind kind, LogTime time, std::string text);

    // The same event once more, or a new one when the last such was too long ago.
    TimelineEvent& repeat(EventKind kind, LogTime time, const std::string& text);

    std::size_t size() const { return events_.size(); }
    TimelineEvent& at(std::size_t index) { return events_[index]; }

    // The event is told by another one; its index stays.
    void withdraw(std::size_t index) { events_[index].count = 0; }

    // In order of time.
    std::vector<TimelineEvent> sorted() const;

private:
    void forget_old(LogTime time);

    std::vector<TimelineEvent> events_;
    std::map<std::string, std::size_t> repeated_;  // index of the last one, by kind and text
};

// A message that `Story` knows by its beginning; the handler gets what follows.
template <typename Story>
struct Rule {
    std::string_view start;
    void (Story::*handler)(LogTime time, std::string_view rest);
};

// Hands the message to the first rule that fits. False when none does.
template <typename Story, std::size_t COUNT>
bool apply_rules(Story& story, const std::array<Rule<Story>, COUNT>& rules,
                 const LogMessage& message) {
    const auto* rule = std::find_if(rules.begin(), rules.end(), [&message](const auto& one) {
        return message.text.starts_with(one.start);
    });
    if (rule == rules.end()) {
        return false;
    }
    (story.*rule->handler)(message.time, message.text.substr(rule->start.size()));
    return true;
}

// The part of `text` between `before` and `after`, or up to the end; empty without `before`.
std::string_view part_between(std::string_view text, std::string_view before,
                              std::string_view after);
