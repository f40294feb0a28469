// What `status --nagios` prints: one line as monitoring plugins print it, with performance data.
#pragma once

#include <string>

#include "ctl/status/host_facts.h"
#include "ctl/status/verdict.h"

struct NagiosResult {
    int code;  // 0 OK, 1 WARNING, 2 CRITICAL, 3 UNKNOWN
    std::string line;
};

// WARNING where only data or the log are concerned, CRITICAL where boot services or a take-over
// are.
NagiosResult nagios_result(const HostFacts& facts, const Verdict& verdict);
