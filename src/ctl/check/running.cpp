// The part of `check` about a running daemon: whether its role is served, and whether it still
// works by the settings. It reads them when it takes its role, and not again.
#include <fmt/format.h>

#include <string>

#include "ctl/configured_role.h"
#include "ctl/daemon_state.h"
#include "findings.h"

namespace {

constexpr const char* NAME = "running role";

std::string work_text(const char* role, const std::string& master, const std::string& slave) {
    return fmt::format("{}, with {} as master and {} as slave", role, master, slave);
}

// An acting master is a slave by its settings.
std::string running_work(const DaemonState& state) {
    const HostRole role = role_of(state);
    const std::string master = state.page->master_ip.get();
    return work_text(role_name(role == HostRole::ACTING_MASTER ? HostRole::SLAVE : role),
                     master.substr(0, master.find('*')), state.page->slave_ip.get());
}

std::string configured_work(const ConfiguredRole& configured, const std::string& master) {
    const RoleDecision& decision = configured.decision;
    return decision.reason == RoleReason::DECIDED
               ? work_text(decision.role == ROLE_MASTER ? "master" : "slave",
                           master.substr(0, master.find('*')), decision.slave_ip)
               : configured.text;
}

bool has_role(HostRole role) {
    return role == HostRole::MASTER || role == HostRole::SLAVE || role == HostRole::ACTING_MASTER;
}

}  // namespace

void check_services(Findings& findings) {
    const DaemonState state = daemon_state();
    for (const char* service : missing_services(state)) {
        findings.problem(service, fmt::format("does not run on the {}", role_name(role_of(state))),
                         "\"quorsyncctl service start boot\"");
    }
    if (serves_beside_master(state)) {
        for (const ProcessInfo& service : state.services) {
            findings.problem(service.name, "runs on a slave that stands by: both servers may serve",
                             "\"quorsyncctl service stop boot\"");
        }
    }
    if (const std::string slave = slave_without_copy(state); !slave.empty()) {
        findings.warning(
            "copy of " + slave, "never fetched: DHCP lacks the slave's settings",
            "\"quorsyncctl timeline\" shows what failed; a slave without 'dsver' needs "
            "\"quorsyncctl store bump dsver\"");
    }
}

void check_running(Findings& findings) {
    const DaemonState state = daemon_state();
    if (state.daemons.size() != 1) {
        return;  // none, or more than one, which is told already
    }
    if (state.page == nullptr) {
        findings.unknown(NAME, state.no_page,
                         "\"quorsyncctl timeline\" tells by which settings the daemon started");
        return;
    }
    const ConfiguredRole configured = own_configured_role();
    // Without an address nobody can tell the role, and a restart would not help.
    if (!has_role(role_of(state)) || configured.decision.reason == RoleReason::NO_LOCAL_ADDRESS) {
        return;
    }
    const std::string running = running_work(state);
    const std::string now = configured_work(configured, read_pair_settings().master);
    if (running == now) {
        findings.good(NAME, running);
    } else {
        findings.problem(
            NAME, fmt::format("the daemon runs as {}; by the settings now: {}", running, now),
            "restart needed: \"systemctl restart quorsyncd\"");
    }
}
