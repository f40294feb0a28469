// One daemon a host: the lock that says whether one runs.
//
// A daemon holds a record lock on /run/quorsyncd.lock for as long as it works. The system releases
// it with the process, however that ends, and no child has it: unlike flock(), a record lock does
// not pass a fork. It also names its holder. A pid in a file or in the state page would have to be
// looked at and written in two steps, between which a second daemon could do the same.
#pragma once

#include <sys/types.h>

#include <optional>

#include "state_page.h"

inline constexpr const char* DAEMON_LOCK = "/run/quorsyncd.lock";

// Makes this process the daemon of the host. Returns the pid of the other one that is, 0 where it
// cannot be seen from here; nothing when there is none. Where the file cannot be made or locked,
// the state page at `page` tells whether there is another one, but two that start at the same time
// go unnoticed. One that is just ending is waited for, 2 seconds at most. Main thread; logs
// nothing.
std::optional<pid_t> claim_host(const char* path = DAEMON_LOCK, const char* page = STATE_PAGE);

// Whether this process has the lock. Main thread.
bool holds_host();

// Another daemon may start: this one has stopped its work. Main thread.
void release_host();
