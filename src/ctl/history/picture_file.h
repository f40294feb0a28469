// "timeline --html": the picture of the past of one or several servers, as a file.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "log_reader.h"

// Reads the logs of each directory since then, or all, and puts a page with a lane for each in the
// place of the file, whole or not at all. Returns the tool's exit code.
int draw_timeline(const std::string& file, const std::vector<std::string>& directories,
                  std::optional<LogTime> since);
