// The part of `check` about the other server of the pair.
#include <arpa/inet.h>
#include <fmt/format.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>

#include "PK_Request_Client.h"
#include "ctl/console.h"
#include "ctl/daemon_state.h"
#include "ctl/peer/agreement.h"
#include "data_sets.h"
#include "findings.h"
#include "owned.h"
#include "peer_message.h"
#include "text.h"

namespace {

using namespace std::chrono_literals;

// Beats come every 2 seconds.
constexpr auto FRESH = 10s;

void check_agreement(const PairSide& own, const PairSide& peer, Findings& findings) {
    const std::vector<Disagreement> all = disagreements(own, peer);
    for (const char* key : SHARED_SETTINGS) {
        if (std::none_of(all.begin(), all.end(),
                         [key](const auto& each) { return each.key == key; })) {
            findings.good(fmt::format("peer {}", key),
                          fmt::format("\"{}\" on both", own.value(key)));
        }
    }
    for (const Disagreement& each : all) {
        findings.problem(fmt::format("peer {}", each.key), each.text, each.remedy);
    }
    const ConfiguredRole role = role_of_side(peer);
    if (all.empty() && role.decision.role != 0) {
        findings.good("peer role", fmt::format("by its settings {}", role.text));
    }
}

// Whether this host has the address, on whatever interface.
bool is_own_address(const std::string& address) {
    const OwnedFd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = inet_addr(address.c_str());
    return is_dotted_address(address) &&
           bind(fd.get(), reinterpret_cast<const sockaddr*>(&local), sizeof local) == 0;
}

// A slave turns to these for its master.
void check_paths_of_slave(const PairSide& peer, Findings& findings) {
    const std::string paths = peer.value(KEY_MASTER_PATHS);
    for (const std::string_view path : split(paths, ',')) {
        if (!is_own_address(std::string(path))) {
            findings.problem(fmt::format("peer {}", KEY_MASTER_PATHS),
                             fmt::format("{} is no address of this host, its master", path),
                             fmt::format("correct 'master_paths' on {}", peer.address));
        }
    }
}

void check_stamps(const PairSide& own, const PairSide& peer, Findings& findings) {
    for (const DataSet& set : DATA_SETS) {
        const std::string here = own.value(set.stamp_key);
        const std::string there = peer.value(set.stamp_key);
        const std::string name = fmt::format("peer {}", set.stamp_key);
        if (here == there) {
            findings.good(name, here.empty() ? "absent on both" : here + " on both");
        } else {
            findings.warning(name,
                             fmt::format("\"{}\" here and \"{}\" on {}", here, there, peer.address),
                             "a slave asks for the set with its next beat; if it stays, "
                             "\"quorsyncctl timeline\" on both tells why");
        }
    }
}

// The last answered beat between this host and that one, which came by one port and was answered by
// the other; null before the first since the daemon's start.
const PageTime* last_beat(const DaemonState& state, const std::string& address) {
    const StatePage& page = *state.page;
    // One that was asked at an address that is not listed beats from a listed one.
    const bool of_another = role_of(state) == HostRole::MASTER &&
                            list_has(own_side().value(KEY_SERVER_LIST), address) &&
                            page.partner != inet_addr(address.c_str());
    const bool known = happened_since_start(page.heartbeat_answered, state);
    return known && !of_another ? &page.heartbeat_answered : nullptr;
}

std::string ports_text() {
    return fmt::format("{0}/udp and {0}/tcp", PEER_PORT);
}

// A datagram would be answered or logged by a master, and a connection be logged as a failure by a
// slave and stand in the way of its master's answers. What the daemon here hears says as much.
void check_beats(const std::string& address, Findings& findings) {
    const DaemonState state = daemon_state();
    const HostRole role = role_of(state);
    const bool beats =
        state.daemons.size() == 1 &&
        (role == HostRole::MASTER || role == HostRole::SLAVE || role == HostRole::ACTING_MASTER);
    if (!beats) {
        findings.warning("peer ports",
                         fmt::format("{} are not probed: the daemon there would take it for the "
                                     "pair's own",
                                     ports_text()),
                         "with a running daemon on both servers, its heartbeats tell");
        return;
    }
    const PageTime* beat = last_beat(state, address);
    const auto age = std::chrono::duration_cast<std::chrono::seconds>(
        age_of(beat != nullptr ? *beat : state.page->started, state));
    const std::string time = age_text(age.count());
    if (beat != nullptr && age <= FRESH) {
        findings.good("peer ports",
                      fmt::format("{} carry heartbeats and answers: the last one {} ago",
                                  ports_text(), time));
    } else if (age <= FRESH) {
        findings.warning("peer ports", fmt::format("no answered heartbeat yet for {}", time),
                         "try again in some seconds");
    } else {
        findings.problem("peer ports", fmt::format("no answered heartbeat for {}", time),
                         fmt::format("look whether the daemon runs on {}, and on both servers for "
                                     "a packet filter that drops {}: \"nft list ruleset\"",
                                     address, ports_text()));
    }
}

}  // namespace

void check_peer(const std::string& address, Findings& findings) {
    const PairSide peer = ask_peer(address);
    if (!peer.failure.empty()) {
        findings.problem("peer config.db", peer.failure,
                         fmt::format("look on {} for its network, its file service and a packet "
                                     "filter that leaves this host out: \"nft list ruleset\"",
                                     address));
    } else {
        const PairSide own = own_side();
        findings.good("peer config.db", fmt::format("handed out by {}, and verifies", address));
        check_agreement(own, peer, findings);
        if (role_of_side(own).decision.role == ROLE_MASTER &&
            role_of_side(peer).decision.role == ROLE_SLAVE) {
            check_paths_of_slave(peer, findings);
        }
        check_stamps(own, peer, findings);
    }
    check_beats(address, findings);
}
