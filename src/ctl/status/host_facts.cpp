#include "ctl/status/host_facts.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <ctime>
#include <memory>
#include <utility>

#include "ctl/store_files.h"
#include "data_sets.h"
#include "keys.h"
#include "owned.h"
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

// On a master, the copy of its slave's settings that it does not have.
void add_missing_copy(const DaemonState& state, std::vector<PeerCopy>& copies) {
    const std::string slave = slave_without_copy(state);
    if (!slave.empty()) {
        copies.push_back({slave, std::nullopt, std::nullopt});
    }
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
    const auto stamp = facts.settings.find(KEY_CLIENT_VERSION);
    std::string note;
    facts.stamped_here = stamp != facts.settings.end() && store->get(KEY_CLIENT_COUNT, note) == 0 &&
                         note.starts_with(stamp->second + " ");
}

std::optional<std::int64_t> change_of(const char* path) {
    struct stat file {};
    if (stat(path, &file) != 0) {
        return std::nullopt;
    }
    return std::int64_t{file.st_mtim.tv_sec} * 1'000'000'000 + file.st_mtim.tv_nsec;
}

// The records of the list that is being copied for the first time since the start of the daemon:
// a master's own, or the one that a slave had before. 0 where nobody asks.
std::int64_t records_to_come(const DaemonState& state) {
    const bool asked = state.page != nullptr && state.page->transfer.kind == DATA_KIND_CLIENT &&
                       !state.page->sets[DATA_KIND_CLIENT - 1].done.ever();
    std::int64_t records = 0;
    if (asked) {
        RecordWalk walk(role_of(state) == HostRole::MASTER ? CLIENT_DB : PREVIOUS_CLIENT_DB);
        for (std::vector<StoredRecord> chunk; walk.next_chunk(chunk);) {
            records += static_cast<std::int64_t>(chunk.size());
        }
    }
    return records;
}

}  // namespace

HostFacts host_facts() {
    HostFacts facts;
    static_cast<DaemonState&>(facts) = daemon_state();
    facts.list_changed = change_of(CLIENT_DB);  // before the stamp that follows a change
    read_settings(facts);
    facts.configured = own_configured_role();
    if (!facts.config_failure.empty()) {
        facts.configured.text = fmt::format("cannot tell: {} cannot be read", CONFIG_DB);
    }
    facts.copies = peer_copies();
    add_missing_copy(facts, facts.copies);
    facts.list_records = records_to_come(facts);
    return facts;
}
