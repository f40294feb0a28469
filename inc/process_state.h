// What is one per process and read by both roles: addresses, role, the request to stop, and the
// small operations that start-up and the slave share. It lies below both, so that neither has to
// include the other.
#pragma once

#include <atomic>

inline constexpr int ROLE_MASTER = 0x1010;
inline constexpr int ROLE_SLAVE = 0x101;
inline constexpr int ROLE_ACTING_MASTER = 0x1111;  // a slave that has taken over

// Dotted addresses of the pair; written once by the role decision, before any other thread starts.
extern char master_ip[32];
extern char slave_ip[32];

// ROLE_*; after start-up only the slave's supervisor writes it.
extern std::atomic<int> role;

// 1 once SIGTERM has asked a slave to stop. Written by a signal handler.
extern std::atomic<int> slave_exit_requested;
static_assert(std::atomic<int>::is_always_lock_free, "a signal handler writes it");

// Installs `handler` for `signal_number` with an empty mask and the given SA_ flags. On failure
// logs "sigaction: %m" at LOG_ERROR and ends the process with status 1.
void install_signal_handler(int signal_number, void (*handler)(int), int flags);

// Blocks SIGTERM in the calling thread for the life of this object: threads that are started
// meanwhile inherit it, so that the signal reaches the main thread only, and cuts its sleep short.
class TermSignalBlocked {
public:
    TermSignalBlocked();
    ~TermSignalBlocked();
    TermSignalBlocked(const TermSignalBlocked&) = delete;
    TermSignalBlocked& operator=(const TermSignalBlocked&) = delete;

private:
    bool was_blocked_ = false;
};

// Ends the process at once with `status`, from any thread, with all logs written out. Static
// destructors do not run: other threads may still use what they would destroy.
[[noreturn]] void end_process(int status);
