// Where a host of the pair stands after the last message of its log.
#pragma once

#include <optional>
#include <string>

#include "log_reader.h"

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
    bool acting = false;            // it has taken over
    std::optional<LogTime> take_over;
    long role_changes = 0;  // take-overs and step-downs

    // On both.
    std::string open_transfer;  // "client set" while that is on its way
};
