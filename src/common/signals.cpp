#include "signals.h"

#include <cerrno>
#include <csignal>
#include <cstring>

#include "end_process.h"
#include "log.h"

std::atomic<int> slave_exit_requested;

namespace {

sigset_t only_sigterm() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    return set;
}

}  // namespace

void install_signal_handler(int signal_number, void (*handler)(int), int flags) {
    struct sigaction action {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    sigemptyset(&action.sa_mask);
    if (sigaction(signal_number, &action, nullptr) != 0) {
        log_message(msg::NO_SIGNAL_HANDLER, strerror(errno));
        end_process(1);
    }
}

TermSignalBlocked::TermSignalBlocked() {
    const sigset_t term = only_sigterm();
    sigset_t before;
    (void)pthread_sigmask(SIG_BLOCK, &term, &before);
    was_blocked_ = sigismember(&before, SIGTERM) == 1;
}

TermSignalBlocked::~TermSignalBlocked() {
    if (!was_blocked_) {
        const sigset_t term = only_sigterm();
        (void)pthread_sigmask(SIG_UNBLOCK, &term, nullptr);
    }
}
