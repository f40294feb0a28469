// What the daemon of this host is at present: its processes, those of the boot services, and its
// state page. No log.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ctl/proc_info.h"
#include "state_page.h"

struct DaemonState {
    std::vector<ProcessInfo> daemons;
    std::vector<ProcessInfo> services;  // the boot services that run

    // A copy of the page of a daemon that runs or, where none does, of the last one.
    std::shared_ptr<const StatePage> page;
    std::string no_page;   // why there is none
    bool unread = false;   // datagrams wait at the daemon's port
    std::int64_t now = 0;  // CLOCK_MONOTONIC in nanoseconds
};

// The programs that serve clients.
inline constexpr const char* BOOT_SERVICES[] = {"quordhcpd", "stagd"};

DaemonState daemon_state();

enum class HostRole {
    UNKNOWN,  // a daemon runs, but has no page
    ENDED,    // no daemon runs
    WAITING,
    STOPPED,  // its process stays and does nothing
    MASTER,
    SLAVE,
    ACTING_MASTER,
};
HostRole role_of(const DaemonState& state);

// "acting master".
const char* role_name(HostRole role);

// That of the present role, but "unknown" without a page, although role_of() says ENDED where no
// daemon runs: before the first start there is nothing that has ended.
const char* shown_role(const DaemonState& state);

bool runs(const std::vector<ProcessInfo>& processes, const char* name);

// Whether the daemon of the page knows it for itself. Of the daemon before it the page tells the
// last answer and the last data sets, and nobody knows what has become of them since.
bool happened_since_start(const PageTime& time, const DaemonState& state);

// The boot services that do not run although this host serves clients. An acting master counts from
// the end of their start on.
std::vector<const char*> missing_services(const DaemonState& state);

// Whether a boot service runs although this host is a slave that stands by, and is not stopping
// them at the moment.
bool serves_beside_master(const DaemonState& state);

// The address of a master's slave whose settings it has never fetched; empty for none.
std::string slave_without_copy(const DaemonState& state);

// How long ago that was.
std::chrono::nanoseconds age_of(const PageTime& time, const DaemonState& state);

// "client set".
const char* set_name(std::int64_t kind);

// "43,000 of about 100,000 records of the client set", of the one that is under way. Before the
// first one has come to its end, `expected` tells how long it will be, or 0 that nobody knows.
std::string progress_text(const StatePage& page, std::int64_t expected = 0);
