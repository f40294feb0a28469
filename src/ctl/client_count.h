// How many clients the last stamp stood for: a list that has shrunk by accident is to be noticed
// before a new stamp makes the slave take it.
//
// "store bump" notes the count beside the stamp, in config.db and in the same change: it survives a
// restart and a backup, and cannot be that of another stamp, since it names its own. Where another
// tool has made the stamp, the state page knows what the daemon last pushed under it.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "store.h"

// The records of client.db; 0 for a missing file, nothing for one that cannot be read.
std::optional<std::size_t> client_count();

// Notes the present count as that of `stamp`. Nothing where it is not known. 0 or the library's
// error code.
int note_client_count(Store& config, std::string_view stamp);

// The count that the present stamp of the clients stood for; nothing where it is not known.
std::optional<std::size_t> stamped_client_count();

// What speaks against a master's list of so many records, by default the present one: "is missing",
// "is empty" or "has 3 records, less than half of the 300 that ..."; empty for nothing.
std::string client_list_fault(std::optional<std::size_t> count = client_count());
