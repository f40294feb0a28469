#include "setting_rules.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstddef>
#include <numeric>
#include <vector>

#include "configured_role.h"
#include "data_sets.h"
#include "keys.h"
#include "text.h"

namespace {

constexpr std::array<std::string_view, 20> OWN_SETTINGS = {
    KEY_HA,          KEY_SERVER_LIST, KEY_MASTER,         KEY_MASTER_PATHS,     KEY_DSVER,
    KEY_BEAT_OUT,    KEY_DHCP,        KEY_CONFIG_VERSION, KEY_CLIENT_VERSION,   KEY_DEFAULT_ADDRESS,
    KEY_NETMASK,     KEY_GATEWAY,     KEY_DNS_LIST,       KEY_IP_BEGIN,         KEY_IP_END,
    KEY_DOMAIN_NAME, KEY_BOOT_FILE,   KEY_DATA_SERVER,    KEY_CLIENT_WINSERVER, KEY_CLIENT_COUNT};

constexpr std::array<std::string_view, 6> ADDRESSES = {
    KEY_DEFAULT_ADDRESS, KEY_NETMASK, KEY_GATEWAY, KEY_IP_BEGIN, KEY_IP_END, KEY_MASTER};

// What somebody writes who wants the pair switched on. Anything else leaves it off.
constexpr std::array<std::string_view, 6> MEANT_ON = {"enable", "enabled", "on",
                                                      "yes",    "true",    "1"};

template <std::size_t N>
bool is_one_of(const std::array<std::string_view, N>& texts, std::string_view text) {
    return std::find(texts.begin(), texts.end(), text) != texts.end();
}

std::string lower_without_blanks(std::string_view text) {
    std::string lower;
    for (const char byte : text) {
        if (std::isspace(static_cast<unsigned char>(byte)) == 0) {
            lower += static_cast<char>(std::tolower(static_cast<unsigned char>(byte)));
        }
    }
    return lower;
}

std::string address_fault(std::string_view address) {
    return is_dotted_address(address) ? ""
                                      : fmt::format("\"{}\" is not a dotted IPv4 address", address);
}

// How many letters have to be put in, taken out or exchanged to make one of the other.
std::size_t edit_distance(std::string_view left, std::string_view right) {
    std::vector<std::size_t> row(right.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 0; i < left.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i + 1;
        for (std::size_t j = 0; j < right.size(); ++j) {
            const std::size_t exchanged = diagonal + (left[i] == right[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({exchanged, row[j] + 1, diagonal + 1});
        }
    }
    return row.back();
}

bool is_like(std::string_view key, std::string_view setting) {
    const std::size_t most = setting.size() < 5 ? 1 : 2;
    return lower_without_blanks(key) == setting || edit_distance(key, setting) <= most;
}

}  // namespace

std::string setting_fault(std::string_view key, std::string_view value) {
    if (key == KEY_HA && value != HA_ENABLED && is_one_of(MEANT_ON, lower_without_blanks(value))) {
        return fmt::format("is \"{}\", not exactly \"{}\"", value, HA_ENABLED);
    }
    if (key == KEY_SERVER_LIST) {
        // One server is the beginning of a list that list-add makes.
        return is_dotted_address(value) ? "" : server_list_fault(value);
    }
    if (is_one_of(ADDRESSES, key)) {
        return address_fault(key == KEY_MASTER ? value.substr(0, value.find('*')) : value);
    }
    if (key == KEY_MASTER_PATHS) {
        for (const std::string_view path : split(value, ',')) {
            if (const std::string fault = address_fault(path); !fault.empty()) {
                return fault;
            }
        }
    }
    return "";
}

std::string control_fault(std::string_view text) {
    const auto is_control = [](char byte) {
        return static_cast<unsigned char>(byte) < ' ' || byte == '\x7f';
    };
    return std::any_of(text.begin(), text.end(), is_control)
               ? "contains a control character, which logs and lists cannot show"
               : "";
}

std::string_view similar_setting(std::string_view key) {
    std::vector<std::string_view> settings(OWN_SETTINGS.begin(), OWN_SETTINGS.end());
    settings.insert(settings.end(), PUSH_CONFIG_KEYS.begin(), PUSH_CONFIG_KEYS.end());
    if (std::find(settings.begin(), settings.end(), key) != settings.end()) {
        return {};
    }
    const auto like = std::find_if(settings.begin(), settings.end(),
                                   [key](std::string_view each) { return is_like(key, each); });
    return like == settings.end() ? std::string_view() : *like;
}

bool needs_restart(std::string_view key) {
    return key == KEY_HA || key == KEY_SERVER_LIST || key == KEY_MASTER;
}
