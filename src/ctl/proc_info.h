// What /proc tells about processes, ports, pipes and semaphores: asked without opening any of them.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct ProcessInfo {
    pid_t pid;
    std::string name;
    std::time_t since;     // wall time of its start
    bool stopped = false;  // by a signal
};

// "quorsyncd (pid 812)".
std::string describe(const ProcessInfo& process);

// The processes of that name, oldest first; not the children that such a process forks on the way
// to another program.
std::vector<ProcessInfo> processes_named(std::string_view name);

// Who has a socket bound to a local IPv4 or IPv6 port (UDP; TCP only when listening).
struct PortUse {
    bool taken = false;
    std::vector<ProcessInfo> holders;  // those that can be seen
};
enum class Transport { UDP, TCP };
PortUse port_use(Transport transport, std::uint16_t port);

// Whether datagrams wait to be read at a local IPv4 port.
bool has_unread_datagrams(std::uint16_t port);

// Who has the pipe at `path` open for reading.
std::vector<ProcessInfo> pipe_readers(const std::string& path);

// The id of the System V semaphore with this key, if there is one.
std::optional<int> semaphore_id_of(key_t key);

// Waits a little until a process of that name runs, or until none does; whether it came to that.
// Those of `dying` were told to end and count as gone.
bool comes_to_run(std::string_view name, bool running, const std::vector<ProcessInfo>& dying = {});
