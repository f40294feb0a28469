// What happened, told from the daemon's own log lines: its starts and roles, the take-overs and the
// way back, the transfers, and what went wrong. A pure function of the messages; it keeps events
// and no lines, so that a log may have any size.
//
// What comes again and again is one event with a count. Times are those of the lines.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "log_reader.h"

enum class EventKind {
    WAITING,      // for a role
    START,        // with the role that was taken
    STOP,         // of a slave, by SIGTERM
    LAST_ANSWER,  // of the master, before a take-over
    TAKE_OVER,
    STEP_DOWN,
    SYNC,      // a slave got a data set
    PUSH,      // a master sent one
    FETCH,     // a master fetched a server's config.db
    TROUBLE,   // the daemon logged a failure
    SILENCE,   // a slave's heartbeat stood still
    CLOCK,     // the clock was set back
    FLAPPING,  // several take-overs in a short time
    RESYNC,    // the same transfer again and again
};

// "take-over": the kind as it is called in all output.
std::string_view kind_name(EventKind kind);

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
};

// Where things stand after the last message.
struct LogState {
    std::optional<LogTime> first_message;
    std::optional<LogTime> last_message;
    std::optional<LogTime> start;
    std::optional<LogTime> stop;  // a slave obeyed SIGTERM: its process stays and does nothing
    std::string role;             // "master" or "slave", empty as long as the log names none
    std::string master_ip;
    std::string slave_ip;
    std::string waiting;  // for a role, and why

    // On a slave.
    std::optional<LogTime> beat;
    std::optional<LogTime> answer;  // the beat before which the master last answered
    int bottle = 0;
    bool acting = false;         // it has taken over
    bool services_left = false;  // it had when it stopped
    std::optional<LogTime> take_over;
    std::optional<LogTime> step_down;
    long turns = 0;  // take-overs and step-downs

    // On a master: the heartbeat that it answered last.
    std::optional<LogTime> beat_back;
    std::string beat_back_to;
    std::string beat_back_stamps;

    // On both.
    std::string open_transfer;  // "client set" while that is on its way
    std::optional<LogTime> last_transfer;
    long quiet_beats = 0;  // answered ones since the last transfer, none of which led to another
};

enum class InSync { YES, NO, CANNOT_TELL };
struct SyncVerdict {
    InSync verdict;
    std::string reason;
};

// Whether the slave has what the master has, as far as the log of either tells at the time `now`.
SyncVerdict judge_sync(const LogState& state, LogTime now);

class Timeline {
public:
    Timeline();
    Timeline(Timeline&&) noexcept;
    Timeline& operator=(Timeline&&) noexcept;
    ~Timeline();

    void add(const LogMessage& message);

    // After the last message: what has happened, in order of time.
    std::vector<TimelineEvent> finish();

    const LogState& state() const;

private:
    struct Stories;
    std::unique_ptr<Stories> stories_;
};
