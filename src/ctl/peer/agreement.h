// Whether the settings of both servers of a pair agree.
#pragma once

#include <array>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "ctl/configured_role.h"
#include "keys.h"

// What is compared of both; the first three must be alike.
inline constexpr std::array<const char*, 3> SHARED_SETTINGS = {KEY_HA, KEY_SERVER_LIST, KEY_MASTER};
inline constexpr std::array<const char*, 7> COMPARED_SETTINGS = {
    KEY_HA,   KEY_SERVER_LIST, KEY_MASTER, KEY_MASTER_PATHS, KEY_CONFIG_VERSION, KEY_CLIENT_VERSION,
    KEY_DSVER};

// One server of the two.
struct PairSide {
    std::string address;                          // of a peer the one that was asked
    std::string failure;                          // why its config.db cannot be read
    std::map<std::string, std::string> settings;  // those of COMPARED_SETTINGS that are there

    std::string value(const char* key) const;  // empty when it is absent
    PairSettings pair_settings() const;
};

// This host, with all its addresses, joined by ",".
PairSide own_side();

// The other server, by its config.db, which is fetched within a few seconds.
PairSide ask_peer(const std::string& address);

// The role that a server takes by its own settings and the addresses that are known of it.
ConfiguredRole role_of_side(const PairSide& side);

// A setting in which they contradict each other.
struct Disagreement {
    std::string key;  // or "role", when no setting does it alone
    std::string text;
    std::string remedy;
};
std::vector<Disagreement> disagreements(const PairSide& own, const PairSide& peer);
