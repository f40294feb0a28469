// One daemon a host: the lock that says whether one runs.
//
// A daemon holds a record lock on /run/quorsyncd.lock for as long as it works. The system releases
// it with the process, however that ends, and no child has it: unlike flock(), a record lock does
// not pass a fork. It also names its holder. A pid in a file or in the state page would have to be
// looked at and written in two steps, between which a second daemon could do the same.
#pragma once

#include <sys/types.h>

#include <optional>

inline constexpr const char* DAEMON_LOCK = "/run/quorsyncd.lock";

// Makes this process the daemon of the host. Returns the pid of the other one that is, 0 where it
// cannot be seen from here; nothing when there is none, or when nobody can tell since the file
// cannot be made or locked. One that is just ending is waited for, 2 seconds at most. Main thread;
// logs nothing.
std::optional<pid_t> claim_host(const char* path = DAEMON_LOCK);

// Another daemon may start: this one has stopped its work. Main thread.
void release_host();
