// What has happened to a pair, told from the daemon's own log lines: its starts and roles, the
// take-overs and the way back, the transfers, and what went wrong. It keeps events and no lines, so
// that a log may have any size.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "event_list.h"
#include "log_reader.h"
#include "log_state.h"
#include "role_bands.h"

// A pure function of the messages.
class Timeline {
public:
    Timeline();
    Timeline(Timeline&&) noexcept;
    Timeline& operator=(Timeline&&) noexcept;
    ~Timeline();

    void add(const LogMessage& message);

    // The daemon has been at work until `now`, and has logged no more; without this, until its last
    // message.
    void reach(LogTime now);

    // After the last message: what has happened, in order of time.
    std::vector<TimelineEvent> finish();

    // The slave's heartbeats that were not answered, a row of them as one event.
    std::vector<TimelineEvent> missed_beats() const;

    const std::vector<RoleBand>& bands() const;

    // The host's address in the pair; empty as long as the log does not tell it.
    std::string own_address() const;

    std::optional<LogTime> first_message() const;

private:
    struct Parts;
    std::unique_ptr<Parts> parts_;
};

// What the daily logs in a directory tell.
struct History {
    Timeline timeline;
    std::string failure;              // why there is nothing to read; empty when there is
    std::vector<std::string> unread;  // a line for each log that could not be read to its end
};

// On standard error.
void complain_of_unread(const History& history);

// Where these are the logs of this host, and its daemon runs: the timeline reaches the present.
void reach_present(Timeline& timeline, const std::string& directory);

// Reads the messages since then, or all. A directory without any log is a failure.
History read_history(const std::string& directory, std::optional<LogTime> since);

// Reads only so much of their end that it tells the last events, and maybe more of them.
History read_last_events(const std::string& directory, std::optional<LogTime> since,
                         std::size_t count);
