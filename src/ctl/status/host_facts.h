// All that `status` rests on: the daemon's state, settings, and copies of other servers. No log.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "ctl/configured_role.h"
#include "ctl/daemon_state.h"

struct PeerCopy {
    std::string address;
    std::optional<std::string> dsver;
    std::optional<long> age;  // seconds since it was put in place; nothing: it was never fetched
};

struct HostFacts : DaemonState {
    std::string config_failure;  // why config.db cannot be read; empty when it can
    ConfiguredRole configured;
    std::map<std::string, std::string> settings;  // those that are there
    bool stamped_here = false;  // the stamp of the clients was made by "store bump" on this host
    std::vector<PeerCopy> copies;
    std::optional<std::int64_t> list_changed;  // client.db, in nanoseconds since 1970
    std::int64_t list_records = 0;  // of the client list, where it tells how long a copy will be
};

HostFacts host_facts();
