#include "ctl/status/host_facts.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>
#include <utility>

#include "ctl/store_files.h"
#include "keys.h"
#include "log.h"
#include "owned.h"
#include "role.h"
#include "store.h"

namespace {

std::vector<PeerCopy> peer_copies() {
    std::vector<PeerCopy> copies;
    for (const std::string& name : names_in_store_directory()) {
        const std::string path = fmt::format("{}/{}", STORE_DIRECTORY, name);
        const std::string address = peer_of_copy(name);
        struct stat file {};
        if (address.empty() || stat(path.c_str(), &file) != 0) {
            continue;
        }
        const OwnedText dsver(db_get(path.c_str(), KEY_DSVER));
        copies.push_back({address, dsver ? std::optional<std::string>(dsver.get()) : std::nullopt,
                          static_cast<long>(std::time(nullptr) - file.st_mtime)});
    }
    return copies;
}

void read_settings(HostFacts& facts) {
    const std::unique_ptr<Store> store = db_open(CONFIG_DB);
    facts.config_failure = open_failure(store);
    if (!facts.config_failure.empty()) {
        return;
    }
    for (const char* key : {KEY_DHCP, KEY_CONFIG_VERSION, KEY_CLIENT_VERSION, KEY_DSVER}) {
        std::string value;
        if (store->get(key, value) == 0) {
            facts.settings[key] = value;
        }
    }
}

void read_page(HostFacts& facts) {
    const StatePageView view;
    if (view.get() == nullptr) {
        facts.no_page = view.error() == EPROTO
                            ? fmt::format("{} is of another version of the daemon", STATE_PAGE)
                            : fmt::format("{}: {}", STATE_PAGE, strerror(view.error()));
    } else if (!facts.daemons.empty() && !is_alive(*view.get())) {
        facts.no_page = fmt::format("{} is of a process that has ended (pid {})", STATE_PAGE,
                                    view.get()->pid.load());
    } else {
        facts.page = copy_of(*view.get());
    }
}

std::int64_t monotonic_now() {
    timespec time{};
    (void)clock_gettime(CLOCK_MONOTONIC, &time);
    return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

}  // namespace

HostFacts quick_facts() {
    HostFacts facts;
    facts.daemons = processes_named(PROGRAM_NAME);
    read_page(facts);
    for (const char* name : BOOT_SERVICES) {
        const auto found = processes_named(name);
        facts.services.insert(facts.services.end(), found.begin(), found.end());
    }
    facts.now = monotonic_now();
    return facts;
}

HostFacts host_facts() {
    HostFacts facts = quick_facts();
    read_settings(facts);
    facts.configured = own_configured_role();
    if (!facts.config_failure.empty()) {
        facts.configured.text = fmt::format("cannot tell: {} cannot be read", CONFIG_DB);
    }
    facts.copies = peer_copies();
    return facts;
}

HostRole role_of(const HostFacts& facts) {
    if (facts.daemons.empty()) {
        return HostRole::ENDED;
    }
    if (facts.page == nullptr) {
        return HostRole::UNKNOWN;
    }
    const auto phase = static_cast<PagePhase>(facts.page->phase.load());
    if (phase != PagePhase::SERVING) {
        return phase == PagePhase::STOPPED ? HostRole::STOPPED : HostRole::WAITING;
    }
    const auto role = facts.page->role.load();
    return role == ROLE_MASTER          ? HostRole::MASTER
           : role == ROLE_ACTING_MASTER ? HostRole::ACTING_MASTER
                                        : HostRole::SLAVE;
}

const char* role_name(HostRole role) {
    constexpr const char* NAMES[] = {"unknown", "ended", "none",         "stopped",
                                     "master",  "slave", "acting master"};
    return NAMES[static_cast<std::size_t>(role)];
}

bool runs(const std::vector<ProcessInfo>& processes, const char* name) {
    return std::any_of(processes.begin(), processes.end(),
                       [name](const ProcessInfo& process) { return process.name == name; });
}

std::chrono::nanoseconds age_of(const PageTime& time, const HostFacts& facts) {
    return std::chrono::nanoseconds(std::max<std::int64_t>(facts.now - time.monotonic, 0));
}
