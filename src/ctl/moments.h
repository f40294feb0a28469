// Moments of wall time, and processes with their start, as the verbs show them.
#pragma once

#include <ctime>
#include <string>
#include <vector>

#include "proc_info.h"
#include "rows.h"

// "2026-11-21 06:19:13", local time.
std::string moment_text(std::time_t moment);

// For programs: local time with its zone, and seconds since 1970.
Json json_moment(std::time_t moment, long seconds_ago);

// "quordhcpd (pid 34) since 2026-11-21 22:40:45, ...", or "none runs".
std::string processes_text(const std::vector<ProcessInfo>& processes);

Json json_of(const std::vector<ProcessInfo>& processes);
