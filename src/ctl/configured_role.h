// The role of a host by its settings alone: what the daemon decides at its start without telling
// anybody, and why. All but the operations on this host are pure functions.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "role.h"

// The settings that the role rests on; empty ones are missing.
struct PairSettings {
    std::string ha;
    std::string server_list;
    std::string numbered_list;  // of the same, by numbered_server_list()
    std::string master;
};

// Those of this host's config.db.
PairSettings read_pair_settings();

struct ConfiguredRole {
    std::string addresses;  // of the host, joined by ","
    RoleDecision decision;
    std::string text;  // "slave of 10.77.0.1: ...", or what it would wait for
};

// The role of the host with these addresses (joined by ",", may be empty).
ConfiguredRole configured_role(const PairSettings& settings, const std::string& addresses);

// The same for every listed server and for the master, in this order, each once.
std::vector<ConfiguredRole> configured_roles(const PairSettings& settings);

// The role of this host, by its config.db and its interfaces.
ConfiguredRole own_configured_role();

// Whether the daemon of this host would be, or is, the slave of its pair.
bool is_configured_slave();

// What keeps a host waiting, in words.
std::string_view reason_text(RoleReason reason);

// What is wrong with `server_list` itself; empty when nothing is.
std::string server_list_fault(std::string_view server_list);

// Whether `text` is four numbers from 0 to 255, without leading zeros, joined by dots.
bool is_dotted_address(std::string_view text);
