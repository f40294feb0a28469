// The timeline of all daily logs in a directory.
#pragma once

#include <optional>
#include <string>

#include "timeline.h"

inline constexpr const char* LOG_DIRECTORY = "/var/log";

struct LogStory {
    Timeline timeline;
    std::string failure;  // why not all of it could be read; empty when it could
};

// Reads the messages since then, or all. False, with the reason in `failure`, when there is no log
// at all or one cannot be read to its end.
bool read_logs(const std::string& directory, std::optional<LogTime> since, LogStory& story);
