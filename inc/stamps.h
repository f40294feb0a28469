// Version stamps: texts by which two servers tell whether they hold the same data set. The stamps
// of the two sets (data_sets.h) are mirrored and lie in config.db; `dsver` is the stamp of a
// server's own config.db, which its master fetches.
//
// A stamp is only compared for equality. By custom it is the local time of the change in 14 digits,
// year first. Any thread.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "data_sets.h"

// Longest stamp that both sides compare; longer ones are cut there on both sides, or they would
// never agree.
inline constexpr std::size_t MAX_STAMP = 127;

// Stands for a stamp that is missing, in a master's answers and pushes.
inline constexpr const char* NO_STAMP = "null";

// The stamps of both data sets, as they are compared.
struct StampPair {
    std::string config;
    std::string client;

    const std::string& of(const DataSet& set) const {
        return set.kind == DATA_KIND_CLIENT ? client : config;
    }
    bool operator==(const StampPair&) const = default;
};

// `stamp` as it is compared: up to a zero byte, at most MAX_STAMP bytes.
std::string_view comparable_stamp(std::string_view stamp);

// The text of both stamps in a beat back, "CONFIG#CLIENT".
std::string join_stamps(const StampPair& stamps);

// The stamps in such a text, split at its first "#". Without one, `config` is the whole text.
struct SplitStamps {
    StampPair stamps;
    bool has_separator;
};
SplitStamps split_stamps(std::string_view text);

// Reads both stamps in one opening of config.db, so that they belong together. `missing` stands for
// one that is not there, after it has been looked for twice. Nothing when config.db cannot be read.
// Logs as the store does.
std::optional<StampPair> read_stamps(const char* missing);

// The stamps that a master answers and pushes: "null" for a missing one, and while config.db cannot
// be read the last that could, since "null" would empty every slave. Nothing when there were never
// any to read.
std::optional<StampPair> current_stamps();

// Zeroes `buffer` and writes the current local time into it as 14 digits, year first. `size` is at
// least 15, by custom 20. Returns `buffer`.
char* format_timestamp(char* buffer, std::size_t size);

// A stamp to take the place of `present`: `now` (14 digits of local time), or the next number when
// that would not be a later one. A slave fetches a set whose stamp is another than its own, and it
// may still have an older one.
std::string next_stamp(const std::string& present, const std::string& now);

// Stores the current time as `dsver` in config.db unless the key is there, even if empty. Logs as
// the store does.
void ensure_dsver();
