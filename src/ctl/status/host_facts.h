// All that `status` rests on: processes, settings, copies of other servers, and the state page of
// the daemon. No log.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ctl/configured_role.h"
#include "ctl/proc_info.h"
#include "state_page.h"

struct PeerCopy {
    std::string address;
    std::optional<std::string> dsver;
    long age;  // seconds since it was put in place
};

struct HostFacts {
    std::string config_failure;  // why config.db cannot be read; empty when it can
    ConfiguredRole configured;
    std::map<std::string, std::string> settings;  // those that are there
    std::vector<PeerCopy> copies;
    std::vector<ProcessInfo> daemons;
    std::vector<ProcessInfo> services;  // the boot services that run

    // A copy of the page of a daemon that runs or, where none does, of the last one.
    std::shared_ptr<const StatePage> page;
    std::string no_page;   // why there is none
    std::int64_t now = 0;  // CLOCK_MONOTONIC in nanoseconds
};

// The programs that serve clients.
inline constexpr const char* BOOT_SERVICES[] = {"quordhcpd", "stagd"};

HostFacts host_facts();

// The page and the processes alone: what may change within a second.
HostFacts quick_facts();

enum class HostRole {
    UNKNOWN,  // a daemon runs, but has no page
    ENDED,    // no daemon runs
    WAITING,
    STOPPED,  // its process stays and does nothing
    MASTER,
    SLAVE,
    ACTING_MASTER,
};
HostRole role_of(const HostFacts& facts);

// "acting master".
const char* role_name(HostRole role);

bool runs(const std::vector<ProcessInfo>& processes, const char* name);

// How long ago that was.
std::chrono::nanoseconds age_of(const PageTime& time, const HostFacts& facts);
