// The part of the timeline about starts, roles, heartbeats, take-over and step-down.
#pragma once

#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "event_list.h"
#include "log_state.h"
#include "message_parser.h"
#include "role.h"

class RoleEvents {
public:
    RoleEvents(EventList& events, LogState& state) : events_(events), state_(state) {}

    // Whether the message is one of these.
    bool handle(const ParsedMessage& message);

    // Reports what the last search for a role, which nothing followed, was waiting for.
    void end_search();

    // The heartbeats that were not answered, a row of them as one event.
    std::vector<TimelineEvent> missed_beats() const;

private:
    bool handle_beat(const ParsedMessage& message);
    void begin_search(LogTime time, std::string_view ha);
    void start(LogTime time, std::string_view master_ip, std::string_view slave_ip);
    void set_role(LogTime time, std::string_view role);
    void stop(LogTime time);
    void count_beat(LogTime time, int bottle, int status);
    void take_over(LogTime time);
    void step_down(LogTime time);

    // A change of the role until the next beat, and its events.
    struct Change {
        bool to_master;
        LogTime time;
        std::optional<LogTime> take_over_before;
        std::vector<std::size_t> events;
    };
    void check_changes(bool promoted);
    void take_back(const Change& change);
    void take_back_flapping(LogTime time);

    std::string start_text() const;
    void note_missed(LogTime time, bool answered);
    void note_silence(LogTime time);
    void note_flapping(LogTime time);

    EventList& events_;
    LogState& state_;

    std::optional<LogTime> search_;
    RoleReason search_reason_ = RoleReason::DECIDED;  // what it waits for if it ends here
    std::string search_ha_;

    std::optional<std::size_t> start_event_;  // whose role is not known yet
    std::string remark_;                      // on the end of the daemon before
    std::optional<LogTime> beat_before_answer_;
    std::deque<LogTime> take_overs_;  // of the last minutes
    std::optional<std::size_t> flapping_;
    std::optional<bool> beat_promoted_;  // whether it had taken over at the last beat
    std::vector<Change> changes_;        // since then

    struct MissedBeats {
        LogTime first;  // when the first of them was sent
        LogTime until;
        long count;
    };
    std::vector<MissedBeats> missed_;
    bool missing_ = false;  // the last heartbeat was not answered
};
