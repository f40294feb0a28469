// The two data sets that a master mirrors to its slave, and all that they differ in.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "keys.h"
#include "peer_message.h"

struct DataSet {
    std::uint32_t kind;                 // DATA_KIND_*, on the wire
    const char* name;                   // as operators call it
    const char* path;                   // its file
    const char* stamp_key;              // of config.db: the set's version stamp
    std::span<const char* const> keys;  // those that travel; none means all
};

// The keys of config.db that travel to a slave; every other key stays on its server.
inline constexpr std::array<const char*, 2> PUSH_CONFIG_KEYS = {"dhcpcfg", "default_writeback"};

// Whether a list of clients has lost more than half of its records, and maybe all: few sites mean
// that.
constexpr bool has_shrunk(std::size_t before, std::size_t now) {
    return now < before - before / 2;
}

// In the order in which a slave asks for them.
inline constexpr std::array<DataSet, 2> DATA_SETS = {{
    {DATA_KIND_CONFIG, "config", CONFIG_DB, KEY_CONFIG_VERSION, PUSH_CONFIG_KEYS},
    {DATA_KIND_CLIENT, "client", CLIENT_DB, KEY_CLIENT_VERSION, {}},
}};
inline constexpr const DataSet& CONFIG_SET = DATA_SETS[0];
inline constexpr const DataSet& CLIENT_SET = DATA_SETS[1];

// The set of that kind, or null.
constexpr const DataSet* data_set_of(std::uint32_t kind) {
    const auto* found = std::find_if(DATA_SETS.begin(), DATA_SETS.end(),
                                     [kind](const DataSet& set) { return set.kind == kind; });
    return found == DATA_SETS.end() ? nullptr : found;
}

// The set of that name, or null.
constexpr const DataSet* data_set_named(std::string_view name) {
    const auto* found = std::find_if(DATA_SETS.begin(), DATA_SETS.end(),
                                     [name](const DataSet& set) { return set.name == name; });
    return found == DATA_SETS.end() ? nullptr : found;
}

// Whether the master sends the record with that key of the set's file.
constexpr bool travels(const DataSet& set, std::string_view key) {
    return set.keys.empty() || std::find(set.keys.begin(), set.keys.end(), key) != set.keys.end();
}
