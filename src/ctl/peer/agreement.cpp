#include "ctl/peer/agreement.h"

#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <optional>

#include "ctl/peer/peer_file.h"
#include "local_addresses.h"
#include "owned.h"
#include "store.h"
#include "text.h"

namespace {

void read_settings(const std::string& path, PairSide& side) {
    std::array<std::optional<std::string>, COMPARED_SETTINGS.size()> values;
    if (!db_read_settled(path.c_str(), COMPARED_SETTINGS, values)) {
        side.failure = fmt::format("{} cannot be read", path);
        return;
    }
    for (std::size_t n = 0; n < values.size(); ++n) {
        if (values[n]) {
            side.settings[COMPARED_SETTINGS[n]] = *values[n];
        }
    }
}

std::string shown(const PairSide& side, const char* key) {
    const auto found = side.settings.find(key);
    return found == side.settings.end() ? "absent" : fmt::format("\"{}\"", found->second);
}

// Only what stands before a "*" of `master` counts.
std::string_view compared(const std::string& value, std::string_view key) {
    return std::string_view(value).substr(0, key == KEY_MASTER ? value.find('*') : value.npos);
}

// What comes of both roles together; empty when one is master and the other its slave.
std::string roles_fault(const ConfiguredRole& own, const ConfiguredRole& peer) {
    if (own.decision.role != peer.decision.role || own.decision.role == 0) {
        return {};
    }
    return own.decision.role == ROLE_MASTER
               ? "two masters, which both serve clients"
               : "two slaves, which both take over for want of a master";
}

// A peer that was asked at an address that its settings do not name may have a role all the same.
bool is_known_by_address(const PairSide& side) {
    return list_has(side.value(KEY_SERVER_LIST), side.address) ||
           compared(side.value(KEY_MASTER), KEY_MASTER) == side.address;
}

}  // namespace

std::string PairSide::value(const char* key) const {
    const auto found = settings.find(key);
    return found == settings.end() ? std::string() : found->second;
}

PairSettings PairSide::pair_settings() const {
    const std::string servers = value(KEY_SERVER_LIST);
    return {value(KEY_HA), servers, numbered_list_of(servers), value(KEY_MASTER)};
}

PairSide own_side() {
    PairSide side{std::string(text_of(OwnedText(local_ip_list()))), {}, {}};
    read_settings(CONFIG_DB, side);
    return side;
}

PairSide ask_peer(const std::string& address) {
    PairSide side{address, {}, {}};
    const PeerFile file = fetch_peer_file(address, CONFIG_DB, true);
    side.failure = file.failure;
    if (side.failure.empty()) {
        read_settings(file.path(), side);
    }
    return side;
}

ConfiguredRole role_of_side(const PairSide& side) {
    ConfiguredRole role = configured_role(side.pair_settings(), side.address);
    if (role.decision.reason == RoleReason::NOT_IN_PAIR && !is_known_by_address(side)) {
        role.text = fmt::format("cannot be told: its settings do not name {}", side.address);
    }
    return role;
}

std::vector<Disagreement> disagreements(const PairSide& own, const PairSide& peer) {
    std::vector<Disagreement> all;
    for (const char* key : SHARED_SETTINGS) {
        const std::string here = own.value(key);
        const std::string there = peer.value(key);
        if (compared(here, key) != compared(there, key)) {
            all.push_back({key,
                           fmt::format("{} here and {} on {}", shown(own, key), shown(peer, key),
                                       peer.address),
                           fmt::format("\"quorsyncctl store put {} VALUE\" where it is wrong, then "
                                       "restart the daemon there",
                                       key)});
        }
    }
    const ConfiguredRole role = role_of_side(peer);
    const std::string fault = roles_fault(role_of_side(own), role);
    if (!fault.empty() && !all.empty()) {
        all.back().text += ": " + fault;
    } else if (!fault.empty()) {
        all.push_back({"role", fault, "look for an address that both servers have"});
    } else if (all.empty() && role.decision.role == 0 && is_known_by_address(peer)) {
        all.push_back({"role", fmt::format("{}: {}", peer.address, role.text),
                       fmt::format("\"quorsyncctl check\" on {}", peer.address)});
    }
    return all;
}
