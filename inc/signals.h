// SIGTERM: the request that a slave stops, and the thread that takes it.
#pragma once

#include <atomic>

// 1 once SIGTERM has asked a slave to stop. Written by a signal handler.
extern std::atomic<int> slave_exit_requested;
static_assert(std::atomic<int>::is_always_lock_free, "a signal handler writes it");

// Installs `handler` for `signal_number` with an empty mask and the given SA_ flags. A failure
// is logged and ends the process with status 1.
void install_signal_handler(int signal_number, void (*handler)(int), int flags);

// Blocks SIGTERM in the calling thread while this object exists: threads that are started meanwhile
// inherit it, so that the signal reaches the main thread only, and cuts its sleep short.
class TermSignalBlocked {
public:
    TermSignalBlocked();
    ~TermSignalBlocked();
    TermSignalBlocked(const TermSignalBlocked&) = delete;
    TermSignalBlocked& operator=(const TermSignalBlocked&) = delete;

private:
    bool was_blocked_ = false;
};
