#include "timeline.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <map>

#include "event_list.h"
#include "fetch_story.h"
#include "log.h"
#include "role_events.h"
#include "transfer_events.h"

namespace {

// Lines of several threads may come in the wrong order by a moment.
constexpr std::chrono::seconds CLOCK_STEP{2};

// Beats come every 2 seconds; one that is older has been missed.
constexpr std::chrono::seconds FRESH{10};
constexpr long QUIET_BEATS = 2;

constexpr std::size_t MAX_ALIKE = 5;  // further ones of a kind are told as one

// Failures that the daemon logs at LOG_INFO. Not "dhcpd stop:", which the tool logs whenever it
// restarts the system's DHCP server; after a failure of the daemon "stagd stop:" follows it.
constexpr std::array<std::string_view, 11> QUIET_FAILURES = {"Bind error:",
                                                             "Udp server socket error:",
                                                             "failed to initialize semaphore",
                                                             "semaphore_p failed",
                                                             "semaphore_v failed",
                                                             "set value failed",
                                                             "Failed to delete",
                                                             "dhcpd start result:",
                                                             "stagd stop:",
                                                             "create socket failed",
                                                             "error func:"};

// What some failures mean to the pair.
struct Meaning {
    std::string_view start;
    const char* text;
};
constexpr std::array<Meaning, 7> MEANINGS = {{
    {"sendto error:", "a heartbeat was not answered"},
    {"TcpConnectSv error:", "a slave cannot be reached"},
    {"TcpBuildListen error:", "no port, the slave's daemon ended"},
    {"Bind error:", "no port, the master's daemon ended"},
    {"dhcpd start result:", "the boot services did not start"},
    {"refresh_dhcp open", "no quordhcpd reads its pipe here"},
    {"failed to initialize semaphore", "the slave's daemon ended"},
}};

std::string with_meaning(std::string text) {
    for (const Meaning& meaning : MEANINGS) {
        if (text.starts_with(meaning.start)) {
            text += fmt::format(" ({})", meaning.text);
        }
    }
    return text;
}

bool is_failure(const LogMessage& message) {
    if (message.level >= LOG_ERROR) {
        return true;
    }
    return message.level == LOG_INFO && std::any_of(QUIET_FAILURES.begin(), QUIET_FAILURES.end(),
                                                    [&message](std::string_view start) {
                                                        return message.text.starts_with(start);
                                                    });
}

// The failures of a log: each text once, and of many alike only the first ones.
class TroubleStory {
public:
    explicit TroubleStory(EventList& events) : events_(events) {}

    void add(const LogMessage& failure) {
        const std::string text(without_origin(failure.text));
        const std::string kind = text.substr(0, text.find(':'));
        if (failure.time - since_ > TOGETHER) {
            alike_.clear();
        }
        since_ = failure.time;
        std::vector<std::string>& known = alike_[kind];
        const bool is_known = std::find(known.begin(), known.end(), text) != known.end();
        if (!is_known && known.size() < MAX_ALIKE) {
            known.push_back(text);
        } else if (!is_known) {
            events_.repeat(EventKind::TROUBLE, failure.time, kind + ": others of the kind");
            return;
        }
        events_.repeat(EventKind::TROUBLE, failure.time, with_meaning(text));
    }

private:
    EventList& events_;
    LogTime since_{};
    std::map<std::string, std::vector<std::string>> alike_;
};

SyncVerdict judge_beats(const LogState& state, std::optional<LogTime> beat, LogTime now,
                        const std::string& partner) {
    if (!beat || now - *beat > FRESH) {
        return {InSync::CANNOT_TELL, beat ? fmt::format("nothing heard of the {} since {}", partner,
                                                        format_log_time(*beat))
                                          : fmt::format("nothing heard of the {}", partner)};
    }
    if (!state.open_transfer.empty()) {
        return {InSync::NO, fmt::format("the {} has not arrived whole", state.open_transfer)};
    }
    if (state.quiet_beats < QUIET_BEATS) {
        return {InSync::CANNOT_TELL, "too few heartbeats since the start or the last transfer"};
    }
    return {InSync::YES,
            fmt::format("the last {} answered heartbeats led to no transfer", state.quiet_beats)};
}

}  // namespace

std::string_view kind_name(EventKind kind) {
    constexpr std::array<std::string_view, 14> NAMES = {
        "waiting", "start", "stop",    "last-answer", "take-over", "step-down", "sync",
        "push",    "fetch", "trouble", "silence",     "clock",     "flapping",  "re-sync"};
    return NAMES[static_cast<std::size_t>(kind)];
}

SyncVerdict judge_sync(const LogState& state, LogTime now) {
    if (state.stop) {
        return {InSync::CANNOT_TELL, "the slave has stopped its work"};
    }
    if (state.role == "master") {
        return judge_beats(state, state.beat_back, now, "slave");
    }
    if (state.acting) {
        return {InSync::CANNOT_TELL, "acting as master: the master does not answer"};
    }
    return judge_beats(state, state.answer, now, "master");
}

struct Timeline::Stories {
    EventList events;
    LogState state;
    RoleStory roles{events, state};
    TransferStory transfers{events, state};
    FetchStory fetches{events};
    TroubleStory troubles{events};

    void watch_clock(LogTime time) {
        if (!state.first_message) {
            state.first_message = time;
        } else if (*state.last_message - time > CLOCK_STEP) {
            events.add(EventKind::CLOCK, time,
                       fmt::format("the clock was set back by {} s",
                                   seconds_between(time, *state.last_message)));
        }
        state.last_message = time;
    }
};

Timeline::Timeline() : stories_(std::make_unique<Stories>()) {}
Timeline::Timeline(Timeline&&) noexcept = default;
Timeline& Timeline::operator=(Timeline&&) noexcept = default;
Timeline::~Timeline() = default;

void Timeline::add(const LogMessage& message) {
    Stories& told = *stories_;
    told.watch_clock(message.time);
    if (message.text.starts_with("quorsyncd start,")) {
        told.transfers.restart();
        told.fetches.restart();
    }
    if (told.roles.take(message) || told.transfers.take(message) || told.fetches.take(message) ||
        !is_failure(message)) {
        return;
    }
    told.transfers.overhear(message);
    if (!told.fetches.take_failure(message)) {
        told.troubles.add(message);
    }
}

std::vector<TimelineEvent> Timeline::finish() {
    stories_->roles.end_attempt();
    const std::string open_transfer = stories_->state.open_transfer;
    stories_->transfers.tell_open_ones();
    stories_->state.open_transfer = open_transfer;  // told, but it may go on
    return stories_->events.sorted();
}

const LogState& Timeline::state() const {
    return stories_->state;
}
