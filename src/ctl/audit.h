// The tool's own lines in the daily log: what an operator changed. `timeline` shows them.
#pragma once

#include <string>
#include <string_view>

inline constexpr std::string_view AUDIT_START = "quorsyncctl: ";

// Logs "quorsyncctl: DONE by USER: VALUE", without the end when `value` is empty. `done` begins
// with the verb and holds no control character; of `value`, any text, the beginning is logged.
void log_change(const std::string& done, const std::string& value);
