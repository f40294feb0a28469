// Part of the address-sanitized daemon alone: SIGUSR2 has it look for leaks. A daemon ends by a
// signal, so that the sanitizer's own look, when a program exits, never comes. A thread looks,
// since the signal may interrupt what holds the allocator's lock.
#include <pthread.h>
#include <sanitizer/lsan_interface.h>
#include <semaphore.h>
#include <unistd.h>

#include <csignal>
#include <string_view>

namespace {

sem_t asked;

void* look_for_leaks(void* /*argument*/) {
    constexpr std::string_view DONE = "looked for leaks\n";
    for (;;) {
        if (sem_wait(&asked) == 0) {
            sleep(1);  // the signal has woken the supervisor: what it holds in hand is no leak
            (void)__lsan_do_recoverable_leak_check();
            (void)!write(STDERR_FILENO, DONE.data(), DONE.size());
        }
    }
}

// With all signals blocked: they are the daemon's. What a detached daemon inherits of the thread
// that was its launcher's is no leak.
void start_thread() {
    const __lsan::ScopedDisabler inherited;
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    pthread_t thread{};
    (void)pthread_create(&thread, nullptr, look_for_leaks, nullptr);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

const int installed = []() noexcept {
    (void)sem_init(&asked, 0, 0);
    start_thread();
    (void)pthread_atfork(nullptr, nullptr, start_thread);  // a daemon that detaches itself
    struct sigaction action {};
    action.sa_handler = [](int /*signal_number*/) {
        (void)sem_post(&asked);
    };
    action.sa_flags = SA_RESTART;
    return sigaction(SIGUSR2, &action, nullptr);
}();

}  // namespace
