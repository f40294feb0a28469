// What `status --follow` prints: a line for each change.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ctl/daemon_state.h"

// What of a host is followed.
struct Followed {
    std::string role;
    bool beats = false;     // it has a role that exchanges heartbeats
    bool answered = false;  // the last heartbeat was, or has not had the time to be
    std::int64_t set = 0;   // kind of the data set under way, 0 for none
    std::int64_t records = 0;
    std::int64_t transfers_whole = 0;
    std::int64_t transfers_broken = 0;
    std::int64_t last_set = 0;  // kind of the last one that was whole
    std::int64_t last_records = 0;
    bool fetching = false;
    std::string fetch_server;
    std::int64_t fetches_whole = 0;
    std::int64_t fetches_failed = 0;
};
Followed followed_of(const DaemonState& facts);

// The lines for what has changed: all that is there for the first one, when `before` is null.
std::vector<std::string> changes_between(const Followed* before, const Followed& now);

// Prints them, each with the time, until standard output is closed or the process is ended. Returns
// the exit code.
int follow_host();
