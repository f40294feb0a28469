// The part of the timeline about starts, roles, heartbeats, take-over and step-down.
#pragma once

#include <deque>
#include <optional>
#include <string>
#include <string_view>

#include "event_list.h"
#include "role.h"

class RoleStory {
public:
    RoleStory(EventList& events, LogState& state) : events_(events), state_(state) {}

    // False for a message that is not about these.
    bool take(const LogMessage& message);

    // Tells what the last attempt to take a role, which nothing followed, was waiting for.
    void end_attempt();

private:
    void on_attempt(LogTime time, std::string_view ha);
    void on_start(LogTime time, std::string_view addresses);
    void on_role(LogTime time, std::string_view role);
    void on_stop(LogTime time, std::string_view);
    void on_bottle(LogTime time, std::string_view values);
    void on_take_over(LogTime time, std::string_view);
    void on_step_down(LogTime time, std::string_view);

    bool take_step(std::string_view text);
    std::string start_text() const;
    void note_silence(LogTime time);
    void note_flapping(LogTime time);

    EventList& events_;
    LogState& state_;

    std::optional<LogTime> attempt_;
    RoleReason attempt_reason_ = RoleReason::DECIDED;  // what it waits for if it ends here
    std::string attempt_ha_;

    std::optional<std::size_t> start_event_;  // whose role is not known yet
    std::string remark_;                      // on the end of the daemon before
    std::optional<LogTime> beat_before_answer_;
    std::deque<LogTime> take_overs_;  // of the last minutes
    std::optional<std::size_t> flapping_;
};
