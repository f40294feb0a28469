// Small operations on the texts of the configuration. Pure functions; any thread.
#pragma once

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

// The pieces of `text` between `separator`s, in order; they point into it. Empty pieces are
// dropped, as the site's other tools do with strtok: "a,,b" holds two items.
inline std::vector<std::string_view> split(std::string_view text, char separator) {
    std::vector<std::string_view> pieces;
    while (!text.empty()) {
        const std::size_t end = text.find(separator);
        const std::string_view piece = text.substr(0, end);
        if (!piece.empty()) {
            pieces.push_back(piece);
        }
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    return pieces;
}

// Whether `item` is one of the items of the comma list.
inline bool list_has(std::string_view list, std::string_view item) {
    const auto items = split(list, ',');
    return std::find(items.begin(), items.end(), item) != items.end();
}

// The decimal number with which `text` begins, blanks and a sign included; 0 when there is none.
// Beyond the range of int it is the nearest int.
inline int leading_number(std::string_view text) {
    const long number = std::strtol(std::string(text).c_str(), nullptr, 10);
    return static_cast<int>(std::clamp<long>(number, INT_MIN, INT_MAX));
}
