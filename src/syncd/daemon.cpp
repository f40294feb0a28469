#include "daemon.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <optional>

#include "end_process.h"
#include "events.h"
#include "keys.h"
#include "log.h"
#include "master.h"
#include "only_daemon.h"
#include "own_role.h"
#include "role.h"
#include "stamps.h"
#include "state_page.h"
#include "store.h"
#include "supervisor.h"

namespace log4cplus {
void shutdownThreadPool();  // exported by the library, though in none of its headers
}

namespace {

constexpr const char* ERROR_FILE = "/var/log/qudpserver.err";
constexpr unsigned IDLE_SECONDS = 100;

[[noreturn]] void idle() {
    for (;;) {
        sleep(IDLE_SECONDS);
    }
}

// Puts /dev/null where a standard descriptor is closed: a database opened under one of the three
// numbers would have log lines written into it.
void fill_standard_descriptors() {
    int filler = -1;
    do {
        filler = open("/dev/null", O_RDWR);
    } while (filler >= 0 && filler <= STDERR_FILENO);
    if (filler >= 0) {
        (void)close(filler);
    }
}

// Gives the process its own output file.
void redirect_standard_descriptors() {
    const int fd = open(ERROR_FILE, O_WRONLY | O_CREAT, 0700);
    if (fd >= 0 && fd != STDOUT_FILENO) {
        (void)dup2(fd, STDOUT_FILENO);
    }
    if (fd >= 0 && fd != STDERR_FILENO) {
        (void)dup2(fd, STDERR_FILENO);
    }
    fill_standard_descriptors();
}

// Whether the daemon `pid` is a slave: by the state page if that is its own, else by the settings.
bool is_slave(pid_t pid) {
    const StatePageView page;
    const bool known = page.get() != nullptr && page.get()->pid == pid;
    const std::int64_t its_role = known ? page.get()->role.load() : decide_own_role().role;
    return its_role == ROLE_SLAVE || its_role == ROLE_ACTING_MASTER;
}

// Ends a second daemon of this host before it does anything, with the status of one whose port is
// taken.
void end_beside_another() {
    const std::optional<pid_t> other = claim_host();
    if (!other) {
        return;
    }
    (void)std::fprintf(stderr, "%s: another one runs on this host, pid %d; this one ends\n",
                       PROGRAM_NAME, *other);
    log_message(msg::ANOTHER_DAEMON_RUNS, *other);
    end_process(is_slave(*other) ? EXIT_UNREACHABLE : EXIT_NO_SETUP);
}

void detach() {
    release_host();  // a lock does not follow into the child
    close_logs();    // of a foreground run before: its descriptors are closed below
    const pid_t child = fork();
    if (child < 0) {
        _exit(255);
    }
    if (child > 0) {
        _exit(0);
    }
    closefrom(0);
    (void)setsid();
    redirect_standard_descriptors();
    (void)!chdir("/");
}

// Waits for a role, then serves in it for good. -1 when no role could be taken.
int run_daemon() {
    (void)!chdir("/");
    std::memset(master_ip, 0, sizeof master_ip);
    std::memset(slave_ip, 0, sizeof slave_ip);
    if (const int failure = publish_state_page(PROGRAM_VERSION, STATE_PAGE, holds_host());
        failure != 0) {
        log_message(msg::NO_STATE_PAGE, STATE_PAGE, strerror(failure));
    }
    role = determine_role();
    log_message(msg::STARTED, master_ip, slave_ip);
    ensure_dsver();
    if (role == ROLE_MASTER) {
        log_message(msg::ROLE_IS_MASTER);
        leave_slave_role();
        start_master();
        idle();
    }
    if (role == ROLE_SLAVE) {
        log_message(msg::ROLE_IS_SLAVE);
        (void)db_del(CONFIG_DB, KEY_DHCP);
        run_slave();
        idle();
    }
    (void)post_event(EVENT_ERROR, EVENT_ROLE_FAILED, errno, nullptr);
    log_message(msg::NO_ROLE);
    return -1;
}

}  // namespace

int daemon_main(int argc, char** /*argv*/) {
    // The library starts threads before main. They would not live on in the detached child, and the
    // library waits for them when the process exits.
    log4cplus::shutdownThreadPool();
    fill_standard_descriptors();
    // Inherited as ignored, it would take away the exit statuses of the boot services.
    (void)signal(SIGCHLD, SIG_DFL);
    // A reader of standard output that ends must not end the daemon. What it starts gets the usual
    // disposition back (spawn.h).
    (void)signal(SIGPIPE, SIG_IGN);
    end_beside_another();  // before the terminal is left, which is to read why
    if (argc == 2) {
        (void)run_daemon();
    }
    detach();
    end_beside_another();
    (void)run_daemon();
    return 0;
}
