#include "configured_role.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <algorithm>

#include "keys.h"
#include "local_addresses.h"
#include "owned.h"
#include "store.h"
#include "text.h"

namespace {

std::string_view without_star(std::string_view master) {
    return master.substr(0, master.find('*'));
}

std::string decided_text(const PairSettings& settings, const RoleDecision& decision) {
    const std::string_view master = without_star(settings.master);
    if (decision.role == ROLE_MASTER) {
        return fmt::format("master: holds the address of 'master', {}", master);
    }
    return fmt::format("slave of {}: {} listed server", master,
                       decision.slave_ip == decision.first ? "first" : "second");
}

// What keeps the host waiting, with the names of the two that have the roles.
std::string waiting_reason(const PairSettings& settings, const RoleDecision& decision) {
    if (decision.reason != RoleReason::NOT_IN_PAIR) {
        return std::string(reason_text(decision.reason));
    }
    const std::string_view master = without_star(settings.master);
    return fmt::format("the master is {}, the slave {}", master,
                       master == decision.first ? decision.next : decision.first);
}

}  // namespace

PairSettings read_pair_settings() {
    const auto value = [](const char* key) {
        return std::string(text_of(OwnedText(db_get(CONFIG_DB, key))));
    };
    return {value(KEY_HA), value(KEY_SERVER_LIST),
            std::string(text_of(OwnedText(numbered_server_list()))), value(KEY_MASTER)};
}

ConfiguredRole configured_role(const PairSettings& settings, const std::string& addresses) {
    const RoleDecision decision =
        decide_role({settings.ha, settings.numbered_list, addresses, settings.master});
    return {addresses, decision,
            decision.reason == RoleReason::DECIDED
                ? decided_text(settings, decision)
                : "no role, waits for ever: " + waiting_reason(settings, decision)};
}

std::vector<ConfiguredRole> configured_roles(const PairSettings& settings) {
    std::vector<ConfiguredRole> roles;
    auto addresses = split(settings.server_list, ',');
    const std::string_view master = without_star(settings.master);
    if (!master.empty()) {
        addresses.push_back(master);
    }
    for (const std::string_view address : addresses) {
        const bool known = std::any_of(roles.begin(), roles.end(), [address](const auto& other) {
            return other.addresses == address;
        });
        if (!known) {
            roles.push_back(configured_role(settings, std::string(address)));
        }
    }
    return roles;
}

ConfiguredRole own_configured_role() {
    return configured_role(read_pair_settings(), std::string(text_of(OwnedText(local_ip_list()))));
}

bool is_configured_slave() {
    return own_configured_role().decision.role == ROLE_SLAVE;
}

std::string_view reason_text(RoleReason reason) {
    switch (reason) {
        case RoleReason::HA_NOT_ENABLED:
            return "'ha' is not exactly \"enable\"";
        case RoleReason::NO_SERVER_LIST:
            return "'server_list' is missing or empty";
        case RoleReason::NO_LOCAL_ADDRESS:
            return "no interface eth* that is up has an address";
        case RoleReason::NO_MASTER:
            return "'master' is missing or empty";
        case RoleReason::SINGLE_SERVER:
            return "'server_list' lists fewer than two servers";
        case RoleReason::NOT_IN_PAIR:
            return "this host is neither the master nor the server that is the slave";
        case RoleReason::DECIDED:
            break;
    }
    return "";
}

bool is_dotted_address(std::string_view text) {
    in_addr address{};
    return inet_pton(AF_INET, std::string(text).c_str(), &address) == 1;
}

std::string server_list_fault(std::string_view server_list) {
    if (server_list.empty()) {
        return "is missing or empty";
    }
    if (server_list.find_first_of(" \t\r\n") != std::string_view::npos) {
        return "contains a blank, which the daemon takes as part of an address";
    }
    const auto addresses = split(server_list, ',');
    for (const std::string_view address : addresses) {
        if (!is_dotted_address(address)) {
            return fmt::format("contains \"{}\", which is not a dotted IPv4 address", address);
        }
        if (std::count(addresses.begin(), addresses.end(), address) > 1) {
            return fmt::format("lists {} twice", address);
        }
    }
    return addresses.size() < 2 ? "lists fewer than two servers; a single one never takes a role"
                                : "";
}
