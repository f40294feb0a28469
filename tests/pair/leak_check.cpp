// Part of the address-sanitized daemon alone: SIGUSR2 has it look for leaks. A daemon ends by a
// signal, so that the sanitizer's own look, when a program exits, never comes.
#include <sanitizer/lsan_interface.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <string_view>

namespace {

void look_for_leaks(int /*signal_number*/) {
    constexpr std::string_view DONE = "looked for leaks\n";
    const int saved_errno = errno;
    (void)__lsan_do_recoverable_leak_check();
    (void)!write(STDERR_FILENO, DONE.data(), DONE.size());
    errno = saved_errno;
}

const int installed = []() noexcept {
    struct sigaction action {};
    action.sa_handler = look_for_leaks;
    action.sa_flags = SA_RESTART;
    return sigaction(SIGUSR2, &action, nullptr);
}();

}  // namespace
