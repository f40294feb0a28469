// What the daemon can make of a setting of config.db, for whoever is about to store one. Pure
// functions.
#pragma once

#include <string>
#include <string_view>

// Why the daemon cannot use `value` under `key`; empty when it can, or does not read the key.
std::string setting_fault(std::string_view key, std::string_view value);

// Why a record with this text could not be told from others in logs and lists: it holds a control
// character. Empty when it does not.
std::string control_fault(std::string_view text);

// The setting that an unknown `key` was probably meant to be; empty when it is a known one, or like
// none.
std::string_view similar_setting(std::string_view key);

// Whether a running daemon keeps the value that it found when it took its role.
bool needs_restart(std::string_view key);
