#include "role_events.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <utility>

#include "ctl/configured_role.h"
#include "text.h"

namespace {

// A slave has a beat every 2 seconds.
constexpr std::chrono::seconds STANDSTILL{10};

constexpr std::chrono::minutes FLAPPING_SPAN{10};
constexpr std::size_t FLAPPING_COUNT = 3;

std::string span_text(const TimelineEvent& event) {
    return event.seconds_from == event.seconds_to
               ? fmt::format("{} s", *event.seconds_from)
               : fmt::format("{} to {} s", *event.seconds_from, *event.seconds_to);
}

}  // namespace

bool RoleStory::take(const LogMessage& message) {
    static constexpr std::array<Rule<RoleStory>, 7> RULES = {{
        {"bottle=", &RoleStory::on_bottle},
        {"ha :", &RoleStory::on_attempt},
        {"quorsyncd start,", &RoleStory::on_start},
        {"quorsyncd_role:", &RoleStory::on_role},
        {"become a master host", &RoleStory::on_take_over},
        {"restore to be a slave host", &RoleStory::on_step_down},
        {"slave exit line", &RoleStory::on_stop},
    }};
    return apply_rules(*this, RULES, message) || take_step(message.text);
}

// --- Waiting for a role ------------------------------------------------------------------------

// Each attempt begins with this line; how far it comes tells the reason.
void RoleStory::on_attempt(LogTime time, std::string_view ha) {
    end_attempt();
    attempt_ = time;
    attempt_ha_ = ha;
    attempt_reason_ = RoleReason::HA_NOT_ENABLED;
}

// False for a message that is no step of an attempt.
bool RoleStory::take_step(std::string_view text) {
    static constexpr std::array<std::pair<std::string_view, RoleReason>, 5> STEPS = {{
        {"server_list:", RoleReason::SINGLE_SERVER},
        {"get server address list failed", RoleReason::NO_SERVER_LIST},
        {"get myself IP address failed", RoleReason::NO_LOCAL_ADDRESS},
        {"get db_master faile", RoleReason::NO_MASTER},
        {"first_ip:", RoleReason::NOT_IN_PAIR},
    }};
    const auto* step = std::find_if(STEPS.begin(), STEPS.end(), [text](const auto& each) {
        return text.starts_with(each.first);
    });
    if (step == STEPS.end()) {
        return false;
    }
    attempt_reason_ = step->second;
    return true;
}

void RoleStory::end_attempt() {
    if (!attempt_) {
        return;
    }
    state_.waiting = reason_text(attempt_reason_);
    if (attempt_reason_ == RoleReason::HA_NOT_ENABLED) {
        state_.waiting += fmt::format(" but \"{}\"", attempt_ha_);
    }
    events_.repeat(EventKind::WAITING, *attempt_, "waits for a role: " + state_.waiting);
    attempt_.reset();
}

// --- Start and end -----------------------------------------------------------------------------

void RoleStory::on_start(LogTime time, std::string_view addresses) {
    attempt_.reset();
    remark_ = state_.acting ? "; the daemon before it ended as acting master without stopping its "
                              "boot services"
                            : "";
    LogState fresh;
    fresh.first_message = state_.first_message;
    fresh.last_message = state_.last_message;
    fresh.take_over = state_.take_over;
    fresh.step_down = state_.step_down;
    fresh.start = time;
    fresh.master_ip = part_between(addresses, "master_ip:", ",");
    fresh.slave_ip = part_between(addresses, "slave_ip:", "");
    state_ = fresh;
    beat_before_answer_.reset();
    start_event_ = events_.size();
    events_.add(EventKind::START, time, start_text());
}

void RoleStory::on_role(LogTime time, std::string_view role) {
    state_.role = role;
    if (!start_event_) {
        start_event_ = events_.size();
        events_.add(EventKind::START, time, {});
    }
    events_.at(*start_event_).text = start_text();
    start_event_.reset();
}

std::string RoleStory::start_text() const {
    return fmt::format("starts{}{} (master {}, slave {}){}", state_.role.empty() ? "" : " as ",
                       state_.role, state_.master_ip, state_.slave_ip, remark_);
}

void RoleStory::on_stop(LogTime time, std::string_view /*rest*/) {
    events_.add(EventKind::STOP, time,
                state_.acting
                    ? "stops its work on request, as acting master: its boot services stay"
                    : "stops its work on request; its process stays");
    state_.stop = time;
    state_.services_left = state_.acting;
    state_.acting = false;
}

// --- Heartbeats --------------------------------------------------------------------------------

// "bottle=2, status=71", once per beat after the countdown from 3: any value from 2 up means that
// the master has answered since the beat before.
void RoleStory::on_bottle(LogTime time, std::string_view values) {
    note_silence(time);
    state_.role = "slave";
    state_.bottle = leading_number(values);
    state_.acting =
        !state_.stop && leading_number(part_between(values, "status=", "")) == STATUS_PROMOTED;
    if (state_.bottle >= 2) {
        beat_before_answer_ = state_.beat ? state_.beat : state_.start;
        state_.answer = time;
        ++state_.quiet_beats;
    }
    state_.beat = time;
}

void RoleStory::note_silence(LogTime time) {
    if (!state_.beat || time - *state_.beat <= STANDSTILL) {
        return;
    }
    TimelineEvent& event = events_.add(
        EventKind::SILENCE, *state_.beat,
        fmt::format("no heartbeat for {} s: the daemon, the disk or the host stood still",
                    seconds_between(*state_.beat, time)));
    event.until = time;
}

void RoleStory::on_take_over(LogTime time, std::string_view /*rest*/) {
    state_.acting = true;
    state_.take_over = time;
    ++state_.turns;
    std::string text = "takes over";
    std::optional<long> from;
    std::optional<long> to;
    if (state_.answer) {
        const LogTime earliest = beat_before_answer_.value_or(*state_.answer);
        from = seconds_between(*state_.answer, time);
        to = seconds_between(earliest, time);
        events_.add(EventKind::LAST_ANSWER, earliest, "the master's last answer").until =
            *state_.answer;
    } else if (state_.start) {
        text += fmt::format(": no answer since the start {} s before",
                            seconds_between(*state_.start, time));
    }
    if (!state_.open_transfer.empty()) {
        text += fmt::format(", while the {} was on its way", state_.open_transfer);
    }
    TimelineEvent& event = events_.add(EventKind::TAKE_OVER, time, text);
    event.seconds_from = from;
    event.seconds_to = to;
    if (from) {
        event.text.insert(std::string_view("takes over").size(),
                          fmt::format(" {} after the master's last answer", span_text(event)));
    }
    note_flapping(time);
}

void RoleStory::note_flapping(LogTime time) {
    take_overs_.push_back(time);
    while (time - take_overs_.front() > FLAPPING_SPAN) {
        take_overs_.pop_front();
    }
    if (take_overs_.size() < FLAPPING_COUNT) {
        return;
    }
    const bool goes_on = flapping_ && events_.at(*flapping_).until >= take_overs_.front();
    if (!goes_on) {
        flapping_ = events_.size();
        events_.add(EventKind::FLAPPING, take_overs_.front(), {}).count = FLAPPING_COUNT - 1;
    }
    TimelineEvent& event = events_.at(*flapping_);
    ++event.count;
    event.until = time;
    event.text = fmt::format(
        "flapping: {} take-overs in {} s; the line to the master or the master itself is unsteady",
        event.count, seconds_between(event.time, time));
}

void RoleStory::on_step_down(LogTime time, std::string_view /*rest*/) {
    state_.acting = false;
    state_.step_down = time;
    ++state_.turns;
    TimelineEvent& event =
        events_.add(EventKind::STEP_DOWN, time, "steps down: the master answers again");
    if (state_.take_over && *state_.take_over <= time) {
        event.seconds_from = event.seconds_to = seconds_between(*state_.take_over, time);
        event.text += fmt::format(", after {} s as acting master", *event.seconds_to);
    }
}
