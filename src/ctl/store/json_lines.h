// Records as JSON lines, {"key": "...", "value": "..."}, which keep every byte: what is not UTF-8
// or holds a zero byte stands as "key_base64" and "value_base64". Pure functions.
#pragma once

#include <string>

#include "store.h"

// One record on one line, without its newline.
std::string to_json_line(const StoredRecord& record);

// Reads such a line into `record`. Returns why it is none, or an empty text.
std::string from_json_line(const std::string& line, StoredRecord& record);
