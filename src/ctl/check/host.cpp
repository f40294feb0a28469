// The part of `check` about this host: what the daemon runs, writes and listens on.
#include <fmt/format.h>
#include <sys/ipc.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "ctl/console.h"
#include "ctl/history/timeline.h"
#include "ctl/proc_info.h"
#include "events.h"
#include "findings.h"
#include "keys.h"
#include "log.h"
#include "peer_message.h"
#include "services.h"

namespace {

constexpr std::uint64_t FULL = 1U << 20U;          // bytes: some hours of heartbeats
constexpr std::uint64_t NEARLY_FULL = 64U << 20U;  // less than a push of many clients logs

struct Program {
    const char* path;
    const char* purpose;
};
constexpr std::array<Program, 4> PROGRAMS = {{
    {DHCP_WRAPPER, "a take-over cannot start DHCP"},
    {BOOT_LOADER, "a take-over cannot start the boot loader service"},
    {EVENT_TOOL, "no event reaches the site's event system"},
    {KILLALL, "boot services cannot be stopped (Debian: psmisc)"},
}};

std::string names_of(const std::vector<ProcessInfo>& processes) {
    std::string names;
    for (const ProcessInfo& process : processes) {
        names += (names.empty() ? "" : ", ") + describe(process);
    }
    return names;
}

void check_programs(Findings& findings) {
    for (const Program& program : PROGRAMS) {
        struct stat status {};
        if (stat(program.path, &status) != 0) {
            findings.problem(program.path, fmt::format("is missing: {}", program.purpose),
                             "install it");
        } else if (!S_ISREG(status.st_mode) || access(program.path, X_OK) != 0) {
            findings.problem(program.path, fmt::format("cannot be executed: {}", program.purpose),
                             fmt::format("chmod 755 {}", program.path));
        } else {
            findings.good(program.path, "can be executed");
        }
    }
}

// Never opens the pipe: closing it again could give its reader an end of file.
void check_pipe(Findings& findings) {
    const bool wrapper_runs = !processes_named(WRAPPER_PROCESS).empty();
    struct stat status {};
    if (stat(RELOAD_PIPE, &status) != 0) {
        const std::string text =
            fmt::format("{}: requests to reload DHCP are lost", strerror(errno));
        if (wrapper_runs) {
            findings.problem(RELOAD_PIPE, text, "restart quordhcpd, which creates it");
        } else {
            findings.warning(RELOAD_PIPE, text, "quordhcpd creates it when it starts");
        }
    } else if (!S_ISFIFO(status.st_mode)) {
        findings.problem(RELOAD_PIPE, "is not a named pipe", "remove it and restart quordhcpd");
    } else if (const auto readers = pipe_readers(RELOAD_PIPE); !readers.empty()) {
        findings.good(RELOAD_PIPE, fmt::format("read by {}", names_of(readers)));
    } else if (wrapper_runs) {
        findings.problem(RELOAD_PIPE, "no process reads it, although quordhcpd runs",
                         "restart quordhcpd");
    } else {
        findings.good(RELOAD_PIPE, "no process reads it: quordhcpd does not run");
    }
}

void check_log_directory(Findings& findings) {
    struct statvfs space {};
    if (access(LOG_DIRECTORY, W_OK) != 0 || statvfs(LOG_DIRECTORY, &space) != 0) {
        const std::string text = fmt::format("cannot be written: {}", strerror(errno));
        if (geteuid() != 0) {
            findings.unknown(LOG_DIRECTORY, text, "run this as root");
        } else {
            findings.problem(LOG_DIRECTORY, text,
                             "the daemon's log is lost; make the directory writable");
        }
        return;
    }
    const std::uint64_t bytes = std::uint64_t(space.f_bavail) * space.f_frsize;
    const bool no_inodes = space.f_files != 0 && space.f_favail == 0;
    const std::string text =
        no_inodes ? "its file system has no free inode" : fmt::format("{} free", bytes_text(bytes));
    if (no_inodes || bytes < FULL) {
        findings.problem(LOG_DIRECTORY, fmt::format("full: {}", text),
                         "remove old logs; the daemon never does");
    } else if (bytes < NEARLY_FULL) {
        findings.warning(LOG_DIRECTORY, text, "remove old logs; the daemon never does");
    } else {
        findings.good(LOG_DIRECTORY, fmt::format("can be written, {}", text));
    }
}

// Returns whether the port is held by anybody.
bool check_port(Transport transport, std::string_view name, Findings& findings) {
    const PortUse use = port_use(transport, PEER_PORT);
    if (!use.taken) {
        findings.good(name, "free");
        return false;
    }
    if (use.holders.empty()) {
        findings.unknown(name, "held by a process that this user cannot see",
                         geteuid() == 0 ? "it runs outside this container" : "run this as root");
        return true;
    }
    if (use.holders.front().name == PROGRAM_NAME) {
        findings.good(name, fmt::format("held by {}", names_of(use.holders)));
    } else {
        findings.problem(name, fmt::format("held by {}", names_of(use.holders)),
                         "stop that process; without its port the daemon exits at once");
    }
    return true;
}

void check_ports(bool daemon_runs, Findings& findings) {
    const bool master = check_port(Transport::UDP, fmt::format("port {}/udp", PEER_PORT), findings);
    const bool slave = check_port(Transport::TCP, fmt::format("port {}/tcp", PEER_PORT), findings);
    if (daemon_runs && !master && !slave) {
        findings.problem(
            "daemon", "runs, but listens on no port",
            "it waits for a role (see above) or has obeyed SIGTERM; \"kill -9\" ends it");
    }
}

// Returns whether a daemon runs.
bool check_daemons(Findings& findings) {
    const std::vector<ProcessInfo> daemons = processes_named(PROGRAM_NAME);
    if (daemons.empty()) {
        findings.good("daemon", "does not run");
    } else if (daemons.size() == 1) {
        findings.good("daemon", fmt::format("{} runs", describe(daemons.front())));
    } else {
        findings.problem("daemon", fmt::format("{} daemons: {}", daemons.size(), names_of(daemons)),
                         "stop all of them and start one");
    }
    return !daemons.empty();
}

void check_semaphore(bool daemon_runs, Findings& findings) {
    // A missing path gives -1, and that is the daemon's key then.
    const auto id = semaphore_id_of(ftok(SEMAPHORE_KEY_PATH, SEMAPHORE_PROJECT));
    if (!id) {
        findings.good("semaphore", "none left over");
    } else if (daemon_runs) {
        findings.good("semaphore", fmt::format("id {}, in use", *id));
    } else {
        findings.warning(
            "semaphore", fmt::format("id {} left over by a daemon that was killed", *id),
            fmt::format("the next daemon takes it over; or remove it with \"ipcrm -s {}\"", *id));
    }
}

}  // namespace

void check_host(Findings& findings) {
    check_programs(findings);
    check_pipe(findings);
    check_log_directory(findings);
    const bool daemon_runs = check_daemons(findings);
    check_ports(daemon_runs, findings);
    check_semaphore(daemon_runs, findings);
}
