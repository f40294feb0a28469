#include "role_events.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>

#include "ctl/configured_role.h"
#include "ctl/console.h"
#include "role.h"
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

std::string flapping_text(const TimelineEvent& event) {
    return fmt::format(
        "flapping: {} take-overs in {} s; the line to the master or the master itself is unsteady",
        event.count, seconds_between(event.time, event.until));
}

// What a search for a role that ends with this step waits for; nothing for other messages.
std::optional<RoleReason> reason_by_step(Meaning step) {
    switch (step) {
        case Meaning::SERVERS_LISTED:
            return RoleReason::SINGLE_SERVER;
        case Meaning::NO_SERVERS:
            return RoleReason::NO_SERVER_LIST;
        case Meaning::NO_ADDRESS:
            return RoleReason::NO_LOCAL_ADDRESS;
        case Meaning::NO_MASTER:
            return RoleReason::NO_MASTER;
        case Meaning::PAIR_KNOWN:
            return RoleReason::NOT_IN_PAIR;
        default:
            return std::nullopt;
    }
}

}  // namespace

bool RoleEvents::handle(const ParsedMessage& message) {
    const LogTime time = message.time;
    const auto& arguments = message.arguments;
    if (const auto reason = reason_by_step(message.meaning())) {
        search_reason_ = *reason;
        return true;
    }
    switch (message.meaning()) {
        case Meaning::ROLE_SEARCH:
            begin_search(time, arguments[0]);
            return true;
        case Meaning::START:
            start(time, arguments[0], arguments[1]);
            return true;
        case Meaning::MASTER_ROLE:
            set_role(time, "master");
            return true;
        case Meaning::SLAVE_ROLE:
            set_role(time, "slave");
            return true;
        case Meaning::STOP:
            stop(time);
            return true;
        default:
            return handle_beat(message);
    }
}

bool RoleEvents::handle_beat(const ParsedMessage& message) {
    const bool of_slave = state_.role != "master";  // anything else stands in a value
    switch (message.meaning()) {
        case Meaning::BEAT:
            count_beat(message.time, leading_number(message.arguments[0]),
                       leading_number(message.arguments[1]));
            return true;
        case Meaning::TAKE_OVER:
            if (of_slave) {
                take_over(message.time);
            }
            return true;
        case Meaning::STEP_DOWN:
            if (of_slave) {
                step_down(message.time);
            }
            return true;
        default:
            return false;
    }
}

// --- Waiting for a role ------------------------------------------------------------------------

void RoleEvents::begin_search(LogTime time, std::string_view ha) {
    end_search();
    search_ = time;
    search_ha_ = ha;
    search_reason_ = RoleReason::HA_NOT_ENABLED;
}

void RoleEvents::end_search() {
    if (!search_) {
        return;
    }
    state_.waiting = reason_text(search_reason_);
    if (search_reason_ == RoleReason::HA_NOT_ENABLED) {
        state_.waiting += fmt::format(" but \"{}\"", search_ha_);
    }
    events_.repeat(EventKind::WAITING, *search_, "waits for a role: " + state_.waiting);
    search_.reset();
}

// --- Start and end -----------------------------------------------------------------------------

void RoleEvents::start(LogTime time, std::string_view master_ip, std::string_view slave_ip) {
    search_.reset();
    remark_ = state_.acting ? "; the daemon before it ended as acting master without stopping its "
                              "boot services"
                            : "";
    LogState fresh;
    fresh.first_message = state_.first_message;
    fresh.last_message = state_.last_message;
    fresh.take_over = state_.take_over;
    fresh.start = time;
    fresh.master_ip = master_ip;
    fresh.slave_ip = slave_ip;
    state_ = fresh;
    beat_before_answer_.reset();
    missing_ = false;
    changes_.clear();
    beat_promoted_.reset();
    start_event_ = events_.size();
    events_.add(EventKind::START, time, start_text());
}

void RoleEvents::set_role(LogTime time, std::string_view role) {
    state_.role = role;
    if (!start_event_) {
        start_event_ = events_.size();
        events_.add(EventKind::START, time, {});
    }
    events_.at(*start_event_).text = start_text();
    start_event_.reset();
}

std::string RoleEvents::start_text() const {
    return fmt::format("starts{}{} (master {}, slave {}){}", state_.role.empty() ? "" : " as ",
                       state_.role, state_.master_ip, state_.slave_ip, remark_);
}

void RoleEvents::stop(LogTime time) {
    events_.add(EventKind::STOP, time,
                state_.acting
                    ? "stops its work on request, as acting master: its boot services stay"
                    : "stops its work on request; its process stays");
    state_.stop = time;
    state_.acting = false;
}

// --- Heartbeats --------------------------------------------------------------------------------

// Once per beat, after the countdown: a bottle that was full before it means that the master has
// answered since the beat before.
void RoleEvents::count_beat(LogTime time, int bottle, int status) {
    note_silence(time);
    check_changes(status == STATUS_PROMOTED);
    state_.role = "slave";
    state_.acting = !state_.stop && status == STATUS_PROMOTED;
    const bool answered = bottle >= SLAVE_BEAT_RESET - 1;
    note_missed(time, answered);
    if (answered) {
        beat_before_answer_ = state_.beat ? state_.beat : state_.start;
        state_.answer = time;
    }
    state_.beat = time;
}

// The heartbeat before this one was answered, or not. Before the first one there was none.
void RoleEvents::note_missed(LogTime time, bool answered) {
    if (answered || !state_.beat) {
        missing_ = false;
        return;
    }
    if (!missing_) {
        missed_.push_back({*state_.beat, time, 0});
    }
    missing_ = true;
    missed_.back().until = time;
    ++missed_.back().count;
}

std::vector<TimelineEvent> RoleEvents::missed_beats() const {
    std::vector<TimelineEvent> events;
    const auto told = [](const MissedBeats& beats) {
        return TimelineEvent{
            EventKind::MISSED,
            beats.first,
            beats.until,
            beats.count,
            counted(static_cast<std::size_t>(beats.count), "heartbeat") + " without an answer",
            {},
            {},
            {},
            false,
            {}};
    };
    std::transform(missed_.begin(), missed_.end(), std::back_inserter(events), told);
    return events;
}

void RoleEvents::note_silence(LogTime time) {
    if (!state_.beat || !lasts_longer(*state_.beat, time, STANDSTILL)) {
        return;
    }
    TimelineEvent& event = events_.add(
        EventKind::SILENCE, *state_.beat,
        fmt::format("no heartbeat for {} s: the daemon, the disk or the host stood still",
                    seconds_between(*state_.beat, time)));
    event.until = time;
}

// The beats tell the role, too, and one comes between two changes of it: a change that they deny
// stood in a value.
void RoleEvents::check_changes(bool promoted) {
    bool may_be_one = beat_promoted_ != promoted;
    for (auto change = changes_.rbegin(); change != changes_.rend(); ++change) {
        if (may_be_one && change->to_master == promoted) {
            may_be_one = false;
        } else {
            take_back(*change);
        }
    }
    changes_.clear();
    beat_promoted_ = promoted;
}

void RoleEvents::take_back(const Change& change) {
    for (const std::size_t event : change.events) {
        events_.remove(event);
    }
    --state_.role_changes;
    if (change.to_master) {
        state_.take_over = change.take_over_before;
        take_back_flapping(change.time);
    }
}

void RoleEvents::take_over(LogTime time) {
    changes_.push_back({true, time, state_.take_over, {}});
    std::vector<std::size_t>& events = changes_.back().events;
    state_.acting = true;
    state_.take_over = time;
    ++state_.role_changes;
    std::string text = "takes over";
    std::optional<long> from;
    std::optional<long> to;
    if (state_.answer) {
        const LogTime earliest = beat_before_answer_.value_or(*state_.answer);
        from = seconds_between(*state_.answer, time);
        to = seconds_between(earliest, time);
        events.push_back(events_.size());
        events_.add(EventKind::LAST_ANSWER, earliest, "the master's last answer").until =
            *state_.answer;
    } else if (state_.start) {
        text += fmt::format(": no answer since the start {} s before",
                            seconds_between(*state_.start, time));
    }
    if (!state_.open_transfer.empty()) {
        text += fmt::format(", while the {} was on its way", state_.open_transfer);
    }
    events.push_back(events_.size());
    TimelineEvent& event = events_.add(EventKind::TAKE_OVER, time, text);
    event.seconds_from = from;
    event.seconds_to = to;
    if (from) {
        event.text.insert(std::string_view("takes over").size(),
                          fmt::format(" {} after the master's last answer", span_text(event)));
    }
    note_flapping(time);
}

void RoleEvents::note_flapping(LogTime time) {
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
    event.text = flapping_text(event);
}

void RoleEvents::take_back_flapping(LogTime time) {
    std::erase(take_overs_, time);
    if (take_overs_.empty() || !flapping_ || events_.at(*flapping_).until < time) {
        return;
    }
    TimelineEvent& event = events_.at(*flapping_);
    --event.count;
    event.until = take_overs_.back();
    event.text = flapping_text(event);
    if (event.count < static_cast<long>(FLAPPING_COUNT)) {
        events_.remove(*flapping_);
        flapping_.reset();
    }
}

void RoleEvents::step_down(LogTime time) {
    state_.acting = false;
    ++state_.role_changes;
    changes_.push_back({false, time, {}, {events_.size()}});
    TimelineEvent& event =
        events_.add(EventKind::STEP_DOWN, time, "steps down: the master answers again");
    if (state_.take_over && *state_.take_over <= time) {
        event.seconds_from = event.seconds_to = seconds_between(*state_.take_over, time);
        event.text += fmt::format(", after {} s as acting master", *event.seconds_to);
    }
}
