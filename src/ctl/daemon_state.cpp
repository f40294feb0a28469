#include "ctl/daemon_state.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <iterator>

#include "ctl/console.h"
#include "data_sets.h"
#include "keys.h"
#include "log.h"
#include "peer_message.h"
#include "role.h"

namespace {

// The boot services are being stopped for so long after a step-down.
constexpr std::chrono::seconds STOPPING{5};

void read_page(DaemonState& state) {
    const StatePageView view;
    if (view.get() == nullptr) {
        state.no_page = view.error() == EPROTO
                            ? fmt::format("{} is of another version of the daemon", STATE_PAGE)
                            : fmt::format("{}: {}", STATE_PAGE, strerror(view.error()));
    } else if (!state.daemons.empty() && !is_alive(*view.get())) {
        state.no_page = fmt::format("{} is of a process that has ended (pid {})", STATE_PAGE,
                                    view.get()->pid.load());
    } else {
        state.page = copy_of(*view.get());
    }
}

std::int64_t monotonic_now() {
    timespec time{};
    (void)clock_gettime(CLOCK_MONOTONIC, &time);
    return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

}  // namespace

DaemonState daemon_state() {
    DaemonState state;
    state.daemons = processes_named(PROGRAM_NAME);
    read_page(state);
    for (const char* name : BOOT_SERVICES) {
        const auto found = processes_named(name);
        state.services.insert(state.services.end(), found.begin(), found.end());
    }
    state.unread = has_unread_datagrams(PEER_PORT);
    state.now = monotonic_now();
    return state;
}

HostRole role_of(const DaemonState& state) {
    if (state.daemons.empty()) {
        return HostRole::ENDED;
    }
    if (state.page == nullptr) {
        return HostRole::UNKNOWN;
    }
    const auto phase = static_cast<PagePhase>(state.page->phase.load());
    if (phase != PagePhase::SERVING) {
        return phase == PagePhase::STOPPED ? HostRole::STOPPED : HostRole::WAITING;
    }
    const auto role = state.page->role.load();
    return role == ROLE_MASTER          ? HostRole::MASTER
           : role == ROLE_ACTING_MASTER ? HostRole::ACTING_MASTER
                                        : HostRole::SLAVE;
}

const char* role_name(HostRole role) {
    constexpr const char* NAMES[] = {"unknown", "ended", "none",         "stopped",
                                     "master",  "slave", "acting master"};
    return NAMES[static_cast<std::size_t>(role)];
}

const char* shown_role(const DaemonState& state) {
    return role_name(state.page == nullptr ? HostRole::UNKNOWN : role_of(state));
}

bool runs(const std::vector<ProcessInfo>& processes, const char* name) {
    return std::any_of(processes.begin(), processes.end(),
                       [name](const ProcessInfo& process) { return process.name == name; });
}

bool happened_since_start(const PageTime& time, const DaemonState& state) {
    return time.ever() && time.monotonic >= state.page->started.monotonic;
}

std::vector<const char*> missing_services(const DaemonState& state) {
    const HostRole role = role_of(state);
    const bool started = role == HostRole::ACTING_MASTER &&
                         state.page->services_result != static_cast<int>(PageResult::NONE);
    std::vector<const char*> missing;
    if (role == HostRole::MASTER || started) {
        std::copy_if(std::begin(BOOT_SERVICES), std::end(BOOT_SERVICES),
                     std::back_inserter(missing),
                     [&state](const char* service) { return !runs(state.services, service); });
    }
    return missing;
}

bool serves_beside_master(const DaemonState& state) {
    if (role_of(state) != HostRole::SLAVE || state.services.empty()) {
        return false;
    }
    const PageTime& step_down = state.page->step_down;
    return !step_down.ever() || age_of(step_down, state) >= STOPPING;
}

std::string slave_without_copy(const DaemonState& state) {
    const std::string slave =
        role_of(state) == HostRole::MASTER ? state.page->slave_ip.get() : std::string();
    const std::string copy = fmt::format("{}/{}.db", STORE_DIRECTORY, slave);
    return slave.empty() || access(copy.c_str(), F_OK) == 0 ? "" : slave;
}

std::chrono::nanoseconds age_of(const PageTime& time, const DaemonState& state) {
    return std::chrono::nanoseconds(std::max<std::int64_t>(state.now - time.monotonic, 0));
}

const char* set_name(std::int64_t kind) {
    return kind == DATA_KIND_CONFIG ? "config set" : "client set";
}

std::string progress_text(const StatePage& page, std::int64_t expected) {
    const auto kind = page.transfer.kind.load();
    const auto records = page.transfer.records.load();
    for (const DataSet& set : DATA_SETS) {
        const PageDataSet& last = page.sets[set.kind - 1];
        if (kind == set.kind && last.done.ever()) {
            expected = last.records;
        }
    }
    const std::string about =
        expected >= records && expected > 0 ? fmt::format(" of about {}", grouped(expected)) : "";
    return fmt::format("{}{} records of the {}", grouped(records), about, set_name(kind));
}
