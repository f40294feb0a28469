#include "ctl/status/peer.h"

#include <fmt/format.h>

#include <algorithm>
#include <string_view>
#include <vector>

#include "ctl/console.h"
#include "ctl/peer/agreement.h"
#include "ctl/rows.h"
#include "ctl/status/host_facts.h"
#include "ctl/status/report.h"
#include "ctl/status/verdict.h"
#include "keys.h"
#include "role.h"

namespace {

constexpr const char* NOT_KNOWN[] = {"its role now", "its daemon and boot services",
                                     "its client records"};

Cell cell_of(const PairSide& side, const char* key) {
    const auto found = side.settings.find(key);
    return found != side.settings.end() ? Cell{escape(found->second)} : Cell{"absent", Colour::DIM};
}

bool is_stamp(std::string_view key) {
    return key == KEY_CONFIG_VERSION || key == KEY_CLIENT_VERSION;
}

// The copy of the peer's settings that this host holds.
std::string copy_note(const PairSide& peer, const HostFacts& facts) {
    const auto copy = std::find_if(
        facts.copies.begin(), facts.copies.end(),
        [&peer](const auto& each) { return each.age && each.address == peer.address; });
    return copy == facts.copies.end() ? "each server its own"
           : copy->dsver == peer.value(KEY_DSVER)
               ? "each server its own; the copy of it here is the latest"
               : "each server its own; the copy of it here is older";
}

Cell note_of(const PairSide& own, const PairSide& peer, std::string_view key,
             const std::vector<Disagreement>& all, const HostFacts& facts) {
    if (std::any_of(all.begin(), all.end(), [key](const auto& each) { return each.key == key; })) {
        return {"DIFFER", Colour::RED};
    }
    if (key == KEY_DSVER) {
        return {copy_note(peer, facts), Colour::DIM};
    }
    if (key == KEY_MASTER_PATHS) {
        return {"each server its own", Colour::DIM};
    }
    const std::string name(key);
    const bool differ = is_stamp(key) && own.value(name.c_str()) != peer.value(name.c_str());
    return differ ? Cell{"differ", Colour::YELLOW} : Cell{};
}

Cell role_cell(const PairSide& side) {
    const ConfiguredRole role = role_of_side(side);
    switch (role.decision.role) {
        case ROLE_MASTER:
            return {"master"};
        case ROLE_SLAVE:
            return {"slave"};
        default:
            return {escape(role.text), Colour::RED};
    }
}

Rows settings_table(const PairSide& own, const PairSide& peer, const HostFacts& facts) {
    Rows rows = {{{{""}, {"here", Colour::BOLD}, {peer.address, Colour::BOLD}}, {}}};
    const std::vector<Disagreement> all = disagreements(own, peer);
    for (const char* key : COMPARED_SETTINGS) {
        rows.push_back(
            {{{key}, cell_of(own, key), cell_of(peer, key), note_of(own, peer, key, all, facts)},
             {}});
    }
    rows.push_back({{{"configured role"}, role_cell(own), role_cell(peer)}, {}});
    return rows;
}

Json json_of_role(const PairSide& side) {
    const ConfiguredRole role = role_of_side(side);
    const int number = role.decision.role;
    return Json::object({{"role", number == ROLE_MASTER  ? "master"
                                  : number == ROLE_SLAVE ? "slave"
                                                         : "none"},
                         {"text", role.text}});
}

Json json_of_settings(const PairSide& side) {
    Json settings = Json::object();
    for (const auto& [key, value] : side.settings) {
        settings.add({key, value});
    }
    return settings;
}

Json json_of_side(const PairSide& side) {
    return side.failure.empty() ? Json::object({{"settings", json_of_settings(side)},
                                                {"configured_role", json_of_role(side)}})
                                : Json();
}

// Adds what contradicts this host, or that nothing could be read.
void judge_peer(const PairSide& own, const PairSide& peer, Verdict& verdict) {
    if (!peer.failure.empty()) {
        verdict.problems.push_back(
            {"peer_not_read", peer.failure,
             fmt::format("\"quorsyncctl check --peer {}\" tells more", peer.address)});
        return;
    }
    if (!own.failure.empty()) {
        return;
    }
    for (const Disagreement& each : disagreements(own, peer)) {
        verdict.problems.push_back(
            {"peer_disagrees", fmt::format("{}: {}", each.key, each.text), each.remedy});
    }
}

// Both sides in two columns, and what cannot be known from here.
void print_peer(const PairSide& own, const PairSide& peer, const HostFacts& facts) {
    say("");
    if (own.failure.empty() && peer.failure.empty()) {
        print_table(settings_table(own, peer, facts));
    }
    say("not known from here of {0}: {1}; \"quorsyncctl status\" there tells, and \"quorsyncctl "
        "diff client --peer {0}\" compares the clients",
        peer.address, fmt::join(NOT_KNOWN, ", "));
}

Json json_of_peer(const PairSide& own, const PairSide& peer) {
    const auto text = [](const char* each) {
        return Json(each);
    };
    return Json::object({{"address", peer.address},
                         {"failure", peer.failure.empty() ? Json() : Json(peer.failure)},
                         {"here", json_of_side(own)},
                         {"there", json_of_side(peer)},
                         {"not_known", json_list(NOT_KNOWN, text)}});
}

}  // namespace

int show_both_sides(const std::string& address, bool json) {
    const PairSide peer = ask_peer(address);
    const PairSide own = own_side();
    const HostFacts facts = host_facts();
    Verdict verdict = judge(facts);
    judge_peer(own, peer, verdict);
    if (!facts.config_failure.empty()) {
        complain("{}; \"quorsyncctl check\" tells what helps", facts.config_failure);
    }
    const Rows rows = report_of(facts, verdict);
    if (json) {
        Json status = object_of(rows);
        status.add({"peer", json_of_peer(own, peer)});
        status.print();
    } else {
        print_table(rows);
        print_peer(own, peer, facts);
    }
    return exit_code_of(facts, verdict);
}
