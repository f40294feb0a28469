#include "ctl/status/host_facts.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <ctime>
#include <memory>
#include <utility>

#include "ctl/store_files.h"
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

}  // namespace

HostFacts host_facts() {
    HostFacts facts{daemon_state(), {}, {}, {}, {}};
    read_settings(facts);
    facts.configured = own_configured_role();
    if (!facts.config_failure.empty()) {
        facts.configured.text = fmt::format("cannot tell: {} cannot be read", CONFIG_DB);
    }
    facts.copies = peer_copies();
    return facts;
}
