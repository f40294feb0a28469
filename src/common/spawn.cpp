#include "spawn.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>

namespace {

constexpr int FIRST_PRIVATE_FD = 3;

// Attributes and file actions that give a started program a clean slate.
class CleanSlate {
public:
    CleanSlate() {
        sigset_t all;
        sigset_t none;
        std::memset(&all, 0xFF,
                    sizeof all);  // sigfillset leaves out two, which would start ignored
        sigemptyset(&none);
        posix_spawnattr_init(&attributes_);
        posix_spawnattr_setsigdefault(&attributes_, &all);
        posix_spawnattr_setsigmask(&attributes_, &none);
        posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
        posix_spawn_file_actions_init(&actions_);
        posix_spawn_file_actions_addclosefrom_np(&actions_, FIRST_PRIVATE_FD);
    }
    CleanSlate(const CleanSlate&) = delete;
    CleanSlate& operator=(const CleanSlate&) = delete;
    ~CleanSlate() {
        posix_spawn_file_actions_destroy(&actions_);
        posix_spawnattr_destroy(&attributes_);
    }

    const posix_spawnattr_t* attributes() const { return &attributes_; }
    const posix_spawn_file_actions_t* actions() const { return &actions_; }

private:
    posix_spawnattr_t attributes_{};
    posix_spawn_file_actions_t actions_{};
};

// The wait status of `child`; 0 when somebody else has taken it.
int wait_for(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {}
    return status;
}

// Everything below runs in the child of a process with threads: async-signal-safe calls only.

void reset_signals() {
    struct sigaction standard {};
    standard.sa_handler = SIG_DFL;
    for (int number = 1; number < NSIG; ++number) {
        (void)sigaction(number, &standard, nullptr);
    }
    sigset_t none;
    sigemptyset(&none);
    (void)sigprocmask(SIG_SETMASK, &none, nullptr);
}

void redirect_output(const char* path) {
    const int fd = open(path, O_RDWR);  // not created: its owner decides whether output is kept
    if (fd != STDOUT_FILENO) {
        (void)dup2(fd, STDOUT_FILENO);
    }
    if (fd != STDERR_FILENO) {
        (void)dup2(fd, STDERR_FILENO);
    }
}

void run_shell_in_child(const char* command) {
    const pid_t shell = _Fork();
    if (shell == 0) {
        (void)execl("/bin/sh", "sh", "-c", command, static_cast<char*>(nullptr));
        _exit(127);
    }
    if (shell > 0) {
        (void)wait_for(shell);
    }
}

[[noreturn]] void become_program(const ForegroundStart& start) {
    reset_signals();
    redirect_output(start.output_path);
    closefrom(FIRST_PRIVATE_FD);
    if (start.shell_command != nullptr) {
        run_shell_in_child(start.shell_command);
    }
    (void)execl(start.program, start.program, static_cast<char*>(nullptr));
    _exit(0);  // a program that is not there is no failed start
}

}  // namespace

int run_shell(const char* command) {
    const CleanSlate clean;
    std::array<char*, 4> arguments = {const_cast<char*>("sh"), const_cast<char*>("-c"),
                                      const_cast<char*>(command), nullptr};
    pid_t child = -1;
    const int result = posix_spawn(&child, "/bin/sh", clean.actions(), clean.attributes(),
                                   arguments.data(), environ);
    if (result != 0) {
        errno = result;
        return -1;
    }
    return wait_for(child);
}

int run_foreground(const ForegroundStart& start) {
    // SIGTERM must not run the daemon's own handler in the child before that is reset.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    (void)pthread_sigmask(SIG_SETMASK, &all, &before);
    const pid_t child = fork();
    if (child == 0) {
        become_program(start);
    }
    const int cause = errno;
    (void)pthread_sigmask(SIG_SETMASK, &before, nullptr);
    errno = cause;
    return child < 0 ? -1 : wait_for(child);
}
