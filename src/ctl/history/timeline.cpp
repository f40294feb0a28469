#include "timeline.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <map>

#include "ctl/audit.h"
#include "ctl/console.h"
#include "ctl/proc_info.h"
#include "log.h"
#include "message_parser.h"
#include "role_events.h"
#include "slave_events.h"
#include "transfer_events.h"

namespace {

// Lines of several threads may come in the wrong order by a moment.
constexpr std::chrono::seconds CLOCK_STEP{2};

constexpr off_t FIRST_PART = 1L << 20U;  // of the logs, which may tell enough

constexpr std::size_t MAX_ALIKE = 5;  // further ones of a kind are told as one
constexpr std::size_t MAX_QUEUE = 1000;
constexpr std::size_t MAX_LINE = 300;  // bytes that are kept of a message

// The fetches of a master.
class FetchEvents {
public:
    explicit FetchEvents(EventList& events) : events_(events) {}

    // Whether the message is one of a fetch, and told with it.
    bool handle(const ParsedMessage& message);

    // The daemon was started anew.
    void restart() {
        queue_.clear();
        server_.reset();
    }

private:
    void queue(std::string_view server);
    void begin();
    bool note_cause(const ParsedMessage& failure);
    void fail(LogTime time, const std::string& cause);
    void succeed(LogTime time);

    EventList& events_;
    std::deque<std::string> queue_;      // servers that will be asked
    std::optional<std::string> server_;  // that is asked now
    std::string cause_;                  // the first failure that was logged meanwhile
};

bool FetchEvents::handle(const ParsedMessage& message) {
    switch (message.meaning()) {
        case Meaning::FETCH_AHEAD:
            queue(message.arguments[0]);
            return true;
        case Meaning::FETCH:
            begin();
            return true;
        case Meaning::FETCH_STEP_FAILED:
            return note_cause(message);
        case Meaning::FETCH_FAILED:
            fail(message.time,
                 cause_.empty() ? fmt::format("result {}", message.arguments[0]) : cause_);
            return true;
        case Meaning::COPY_NOT_REPLACED:
            if (!note_cause(message)) {
                return false;
            }
            fail(message.time, cause_);
            return true;
        case Meaning::FETCH_DONE:
            succeed(message.time);
            return true;
        default:
            return false;
    }
}

void FetchEvents::queue(std::string_view server) {
    if (queue_.size() < MAX_QUEUE) {
        queue_.emplace_back(server);
    }
}

void FetchEvents::begin() {
    server_ = "another server";
    if (!queue_.empty()) {
        server_ = queue_.front();
        queue_.pop_front();
    }
    cause_.clear();
}

// False while no fetch is under way: the tool fetches, too.
bool FetchEvents::note_cause(const ParsedMessage& failure) {
    if (server_ && cause_.empty()) {
        cause_ = without_origin(failure.text);
    }
    return server_.has_value();
}

void FetchEvents::fail(LogTime time, const std::string& cause) {
    TimelineEvent& event = events_.repeat(EventKind::FETCH, time,
                                          fmt::format("config.db of {} could not be fetched: {}",
                                                      server_.value_or("another server"), cause));
    event.failed = true;
    server_.reset();  // the DHCP reload that may follow is no end of a fetch
}

void FetchEvents::succeed(LogTime time) {
    if (!server_) {
        return;
    }
    TimelineEvent& event =
        events_.repeat(EventKind::FETCH, time, fmt::format("config.db of {} fetched", *server_));
    if (event.count == ENDLESS) {
        event.kind = EventKind::RESYNC;
        event.text = fmt::format(
            "endless re-sync: {}, though its 'dsver' never comes to equal the copy's", event.text);
    }
    server_.reset();
}

// Events that may come in great numbers, with the texts of lines: each text once, and of many alike
// only the first ones.
class AlikeEvents {
public:
    AlikeEvents(EventList& events, EventKind kind) : events_(events), kind_(kind) {}

    // Texts that begin with the same `group` are alike; `remark` goes behind the text.
    void add(LogTime time, const std::string& group, const std::string& text,
             const std::string& remark = {});

private:
    EventList& events_;
    EventKind kind_;
    LogTime last_{};
    std::map<std::string, std::vector<std::string>> alike_;
};

void AlikeEvents::add(LogTime time, const std::string& group, const std::string& text,
                      const std::string& remark) {
    if (time - last_ > TOGETHER) {
        alike_.clear();
    }
    last_ = time;
    std::vector<std::string>& known = alike_[group];
    const bool is_known = std::find(known.begin(), known.end(), text) != known.end();
    if (!is_known && known.size() < MAX_ALIKE) {
        known.push_back(text);
    } else if (!is_known) {
        events_.repeat(kind_, time, group + ": others of the kind");
        return;
    }
    events_.repeat(kind_, time, text + remark);
}

std::string consequence_of(const ParsedMessage& failure) {
    const char* text = failure.message == nullptr ? nullptr : failure.message->consequence;
    return text == nullptr ? "" : fmt::format(" ({})", text);
}

}  // namespace

struct Timeline::Parts {
    EventList events;
    LogState state;
    RoleEvents roles{events, state};
    SlaveEvents slaves{events};
    TransferEvents transfers{events, state};
    FetchEvents fetches{events};
    AlikeEvents failures{events, EventKind::TROUBLE};
    AlikeEvents changes{events, EventKind::CHANGE};
    RoleBands bands;
    std::optional<LogTime> reached;  // beyond the last message

    // New events since there were so many come from this message.
    void note_line(std::size_t known, std::string_view text) {
        for (std::size_t fresh = known; fresh < events.size(); ++fresh) {
            events.at(fresh).line = text.substr(0, MAX_LINE);
        }
    }

    void watch_clock(LogTime time) {
        if (!state.first_message) {
            state.first_message = time;
        } else if (*state.last_message - time > CLOCK_STEP &&
                   !zone_went_back(*state.last_message, time)) {
            events.add(EventKind::CLOCK, time,
                       fmt::format("the clock was set back by {} s",
                                   seconds_between(time, *state.last_message)));
        }
        state.last_message = time;
    }
};

Timeline::Timeline() : parts_(std::make_unique<Parts>()) {}
Timeline::Timeline(Timeline&&) noexcept = default;
Timeline& Timeline::operator=(Timeline&&) noexcept = default;
Timeline::~Timeline() = default;

void Timeline::add(const LogMessage& line) {
    Parts& parts = *parts_;
    const std::size_t known = parts.events.size();
    parts.watch_clock(line.time);
    const ParsedMessage message = parse_message(line);
    if (message.meaning() == Meaning::START) {
        parts.transfers.restart();
        parts.fetches.restart();
    }
    parts.slaves.watch(message);
    const bool handled = parts.roles.handle(message) || parts.transfers.handle(message) ||
                         parts.fetches.handle(message);
    if (message.text.starts_with(AUDIT_START)) {
        const std::string text(message.text.substr(AUDIT_START.size()));
        parts.changes.add(line.time, text.substr(0, text.find(' ')), text);
    } else if (message.failure && !handled) {
        const std::string text(without_origin(message.text));
        parts.failures.add(line.time, text.substr(0, text.find(':')), text,
                           consequence_of(message));
    }
    parts.note_line(known, line.text);
    parts.bands.add(line.time, parts.state);
}

std::vector<TimelineEvent> Timeline::finish() {
    parts_->roles.end_search();
    const std::string open_transfer = parts_->state.open_transfer;
    parts_->transfers.report_open_ones();
    parts_->state.open_transfer = open_transfer;  // reported, but it may go on
    const LogTime end = parts_->reached.value_or(parts_->state.last_message.value_or(LogTime{}));
    return parts_->events.sorted(parts_->slaves.silent_ones(end));
}

void Timeline::reach(LogTime now) {
    parts_->reached = now;
}

std::vector<TimelineEvent> Timeline::missed_beats() const {
    return parts_->roles.missed_beats();
}

const std::vector<RoleBand>& Timeline::bands() const {
    return parts_->bands.list();
}

std::string Timeline::own_address() const {
    const LogState& state = parts_->state;
    return state.role == "master" ? state.master_ip : state.role == "slave" ? state.slave_ip : "";
}

std::optional<LogTime> Timeline::first_message() const {
    return parts_->state.first_message;
}

namespace {

// The logs with lines since then, or all; none, with the failure, where they cannot be had.
std::vector<DailyLog> logs_since(const std::string& directory, std::optional<LogTime> since,
                                 std::string& failure) {
    auto logs = daily_logs(directory);
    if (!logs || logs->empty()) {
        failure =
            fmt::format("{}: {}; --dir names another directory", directory,
                        logs ? "holds no daily log \"quorsyncd_YYYY_MM_DD.log\"" : strerror(errno));
        return {};
    }
    if (since) {
        std::erase_if(*logs, [since](const DailyLog& log) {
            return log.day + std::chrono::days(1) <= *since;
        });
        std::for_each(logs->begin(), logs->end(),
                      [since](DailyLog& log) { begin_at(log, *since); });
    }
    return std::move(*logs);
}

// What they tell together. Where one cannot be read, the others do.
struct ReadLogs {
    History history;
    bool vanished = false;  // a log: it was renamed since the directory was listed
};

ReadLogs read_logs(const std::vector<DailyLog>& logs, std::optional<LogTime> since) {
    ReadLogs read;
    for (const DailyLog& log : logs) {
        const bool whole = visit_messages(log, [&](const LogMessage& message) {
            if (!since || message.time >= *since) {
                read.history.timeline.add(message);
            }
        });
        if (!whole) {
            read.vanished |= errno == ENOENT;
            read.history.unread.push_back(
                fmt::format("{} cannot be read: {}", log.path, strerror(errno)));
        }
    }
    return read;
}

// Whether the last `count` events are told as they would be with all that was logged before.
bool tells_last(Timeline& timeline, std::size_t count) {
    const std::vector<TimelineEvent> events = timeline.finish();
    if (events.size() < count) {
        return false;
    }
    const auto begin = events.end() - static_cast<std::ptrdiff_t>(count);
    return begin == events.end() ||
           (begin->time - *timeline.first_message() > TOGETHER &&
            std::none_of(begin, events.end(), [](const TimelineEvent& event) {
                return event.kind == EventKind::STEP_DOWN && !event.seconds_from;
            }));
}

// Of the messages since then, or all, so many of the last bytes that these tell the last events.
ReadLogs read_end(const std::string& directory, std::optional<LogTime> since, std::size_t count) {
    ReadLogs read;
    const std::vector<DailyLog> logs = logs_since(directory, since, read.history.failure);
    for (off_t bytes = FIRST_PART; read.history.failure.empty(); bytes *= 4) {
        const std::vector<DailyLog> part = last_part(logs, bytes);
        read = read_logs(part, since);
        const bool is_all = part.size() == logs.size() &&
                            (logs.empty() || part.front().begin <= logs.front().begin);
        if (is_all || tells_last(read.history.timeline, count)) {
            break;
        }
    }
    return read;
}

ReadLogs read_all(const std::string& directory, std::optional<LogTime> since) {
    std::string failure;
    ReadLogs read = read_logs(logs_since(directory, since, failure), since);
    read.history.failure = failure;
    return read;
}

}  // namespace

void complain_of_unread(const History& history) {
    for (const std::string& line : history.unread) {
        complain("{}", line);
    }
}

void reach_present(Timeline& timeline, const std::string& directory) {
    if (directory == LOG_DIRECTORY && !processes_named(PROGRAM_NAME).empty()) {
        timeline.reach(log_time_now());
    }
}

History read_history(const std::string& directory, std::optional<LogTime> since) {
    ReadLogs read = read_all(directory, since);
    return read.vanished ? read_all(directory, since).history : std::move(read.history);
}

History read_last_events(const std::string& directory, std::optional<LogTime> since,
                         std::size_t count) {
    ReadLogs read = read_end(directory, since, count);
    return read.vanished ? read_end(directory, since, count).history : std::move(read.history);
}
