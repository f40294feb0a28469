// What the facts of a host come to: whether the pair is in sync, and what an operator must act on.
// Pure functions.
#pragma once

#include <string>
#include <vector>

#include "ctl/status/host_facts.h"

enum class InSync {
    YES,
    NO,
    COPYING,  // not yet: a data set is on its way, and comes on
    CANNOT_TELL,
};
struct SyncVerdict {
    InSync verdict;
    std::string reason;
};

// A state that an operator must act on or, as a warning, should know of.
struct Problem {
    std::string name;    // one of PROBLEM_NAMES, for programs
    std::string text;    // what is the matter
    std::string remedy;  // what to do
};

inline constexpr const char* PROBLEM_NAMES[] = {
    "daemon_missing", "two_daemons", "stands_still",    "no_role",    "stopped",
    "acting_master",  "flapping",    "slave_silent",    "no_answers", "service_missing",
    "both_serve",     "not_in_sync", "log_not_written", "not_bumped",
};

struct Verdict {
    SyncVerdict sync;
    std::vector<Problem> problems;
    std::vector<Problem> warnings;  // these leave the exit code as it is
};

Verdict judge(const HostFacts& facts);

// EXIT_PROBLEM with a problem, EXIT_FINE where the pair is in sync or comes to be, otherwise
// EXIT_CANNOT_TELL.
int exit_code_of(const HostFacts& facts, const Verdict& verdict);
