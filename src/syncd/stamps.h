// The master's version stamps, as it answers and pushes them.
#pragma once

#include <optional>
#include <string>

// The stamp under `key` of config.db, "null" when there is none. While config.db cannot be read,
// the last one that could: "null" would empty every slave. Nothing when there was never one to
// read. Main thread of the master.
std::optional<std::string> current_stamp(const char* key);
