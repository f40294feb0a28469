#include "client_count.h"

#include <fmt/format.h>
#include <unistd.h>

#include <array>
#include <charconv>

#include "console.h"
#include "data_sets.h"
#include "keys.h"
#include "state_page.h"

namespace {

// The count in "STAMP COUNT", if it is that of `stamp`.
std::optional<std::size_t> noted_count(std::string_view note, std::string_view stamp) {
    std::size_t count = 0;
    if (!note.starts_with(stamp) || !note.substr(stamp.size()).starts_with(' ')) {
        return std::nullopt;
    }
    note.remove_prefix(stamp.size() + 1);
    const auto [end, failed] = std::from_chars(note.data(), note.data() + note.size(), count);
    const bool whole = failed == std::errc() && end == note.data() + note.size();
    return whole ? std::optional(count) : std::nullopt;
}

// The count of the last whole push, if that had `stamp`.
std::optional<std::size_t> pushed_count(std::string_view stamp) {
    const StatePageView page;
    if (page.get() == nullptr) {
        return std::nullopt;
    }
    const PageDataSet& set = page.get()->sets[CLIENT_SET.kind - 1];
    return set.done.ever() && set.stamp.get() == stamp
               ? std::optional(static_cast<std::size_t>(set.records.load()))
               : std::nullopt;
}

}  // namespace

std::optional<std::size_t> client_count() {
    return access(CLIENT_DB, F_OK) == 0 ? db_count(CLIENT_DB) : 0;
}

int note_client_count(Store& config, std::string_view stamp) {
    const auto count = client_count();
    return count ? config.put(KEY_CLIENT_COUNT, fmt::format("{} {}", stamp, *count)) : 0;
}

std::optional<std::size_t> stamped_client_count() {
    constexpr std::array KEYS = {KEY_CLIENT_VERSION, KEY_CLIENT_COUNT};
    std::array<std::optional<std::string>, KEYS.size()> values;
    if (!db_read_settled(CONFIG_DB, KEYS, values) || !values[0]) {
        return std::nullopt;
    }
    const auto noted = noted_count(values[1].value_or(""), *values[0]);
    return noted ? noted : pushed_count(*values[0]);
}

std::string client_list_fault(std::optional<std::size_t> count) {
    const auto before = stamped_client_count();
    if (count == std::size_t{0}) {
        const char* what = access(CLIENT_DB, F_OK) == 0 ? "is empty" : "is missing";
        return before.value_or(0) == 0 ? what
                                       : fmt::format("{}, though the last stamp stood for {}", what,
                                                     counted(*before, "record"));
    }
    if (count && before && has_shrunk(*before, *count)) {
        return fmt::format("has {}, less than half of the {} that the last stamp stood for",
                           counted(*count, "record"), *before);
    }
    return {};
}
