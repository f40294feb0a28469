// quorsyncctl service: the boot services of this host by hand.
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "audit.h"
#include "configured_role.h"
#include "console.h"
#include "daemon_state.h"
#include "moments.h"
#include "proc_info.h"
#include "role.h"
#include "rows.h"
#include "services.h"
#include "session.h"
#include "text.h"
#include "verbs.h"

namespace {

constexpr const char* NOTES = R"(
A daemon that is killed while it acts as master leaves the boot services running, and the
next daemon does not know of them. The unit runs "stop boot --if-slave" before each start.
Examples:
  quorsyncctl service status
  quorsyncctl service stop boot --if-slave
  quorsyncctl service start tftp

"status" ends with 0 if all boot services run, with 1 if some do and with 3 if none does.)";

struct Service {
    const char* name;
    const char* summary;
    ServiceResult (*start)();
    ServiceResult (*stop)();
    const char* program;         // that starts it
    std::string_view processes;  // that show whether it runs, joined by ","
};

constexpr std::array SERVICES = {
    Service{"boot", "The wrapper quordhcpd and the boot loader stagd.", start_boot_services,
            stop_boot_services, DHCP_WRAPPER, "quordhcpd,stagd"},
    Service{"tftp", "The TFTP server.", start_tftp_service, stop_tftp_service, TFTP_SERVER,
            "in.tftpd"},
    Service{"ravlo", "The init script ravlo.", start_ravlo_service, stop_ravlo_service,
            RAVLO_SCRIPT, ""},
    Service{"dhcpd", "The system's own DHCP server.", start_system_dhcpd, stop_system_dhcpd,
            SYSTEM_DHCPD, "dhcpd"},
};

struct Options {
    bool json = false;
    bool force = false;
    bool if_slave = false;
};

// Whether boot services that run here before the daemon starts are those of a take-over: the host
// is the slave, or its address in the pair is missing and its daemon has ended as acting master.
// Not while a daemon runs that acts as master, such as one that was started by hand: they are its.
bool has_left_over_services() {
    const DaemonState daemon = daemon_state();
    if (role_of(daemon) == HostRole::ACTING_MASTER) {
        return false;
    }
    const RoleDecision decision = own_configured_role().decision;
    const bool address_missing = decision.reason == RoleReason::NO_LOCAL_ADDRESS ||
                                 decision.reason == RoleReason::NOT_IN_PAIR;
    if (!address_missing) {
        return decision.role == ROLE_SLAVE;
    }
    return daemon.page != nullptr && daemon.page->role == ROLE_ACTING_MASTER;
}

// Whether it is the slave, and its daemon runs and has not taken the boot services over.
bool stands_by_for_the_master() {
    switch (role_of(daemon_state())) {
        case HostRole::ENDED:
        case HostRole::MASTER:
        case HostRole::ACTING_MASTER:
            return false;
        case HostRole::SLAVE:
            return true;
        case HostRole::UNKNOWN:
        case HostRole::WAITING:
        case HostRole::STOPPED:
            break;
    }
    return is_configured_slave();
}

// The processes of the service that run.
std::vector<ProcessInfo> running_processes(const Service& service) {
    std::vector<ProcessInfo> running;
    for (const std::string_view name : split(service.processes, ',')) {
        const auto found = processes_named(name);
        running.insert(running.end(), found.begin(), found.end());
    }
    return running;
}

bool all_run(const Service& service, const std::vector<ProcessInfo>& running) {
    const auto names = split(service.processes, ',');
    return !names.empty() && std::all_of(names.begin(), names.end(), [&](std::string_view name) {
        return runs(running, std::string(name).c_str());
    });
}

// The first process of the service that is not as wanted after a while, or an empty text. Those
// of `dying` were told to end.
std::string_view wrong_process(const Service& service, bool running,
                               const std::vector<ProcessInfo>& dying = {}) {
    for (const std::string_view name : split(service.processes, ',')) {
        if (!comes_to_run(name, running, dying)) {
            return name;
        }
    }
    return {};
}

// Complains where not: as another user nothing could be started or ended.
bool is_root(const Service& service) {
    if (geteuid() == 0) {
        return true;
    }
    complain("{}: nothing was done; run this as root", service.name);
    return false;
}

// Complains where not: without it nothing happens, and nobody says so.
bool program_is_there(const Service& service) {
    if (access(service.program, X_OK) == 0) {
        return true;
    }
    complain("{}: {}: {}; install what provides it", service.name, service.program,
             std::strerror(errno));
    return false;
}

// Whether these are the services that move between the servers of the pair.
bool moves(const Service& service) {
    return service.start == start_boot_services;
}

// Starts it and says what came of it; `before` are its processes that ran.
int start_anew(const Service& service, const std::vector<ProcessInfo>& before) {
    begin_changes();
    const ServiceResult result = [&] {
        const DetachedPrograms detached;
        return service.start();
    }();
    if (!result.success) {
        complain("{}: {} reports a failure; see its own log, or {} if that exists", service.name,
                 service.program, DHCP_START_LOG);
        return EXIT_PROBLEM;
    }
    if (const std::string_view missing = wrong_process(service, true, before); !missing.empty()) {
        complain("{}: {} does not run; see its own log", service.name, missing);
        return EXIT_PROBLEM;
    }
    log_change(fmt::format("service start {}", service.name), {});
    say("{}: started", service.name);
    return EXIT_FINE;
}

int start(const Service& service, const Options& options) {
    if (!is_root(service)) {
        return EXIT_PROBLEM;
    }
    if (moves(service) && !options.force && stands_by_for_the_master()) {
        throw WrongUse(
            service.name,
            "this host is the slave: both servers would serve the clients; --force starts "
            "them anyway");
    }
    const std::vector<ProcessInfo> before = running_processes(service);
    if (all_run(service, before)) {
        say("{}: ran already", service.name);
        return EXIT_FINE;
    }
    return program_is_there(service) ? start_anew(service, before) : EXIT_PROBLEM;
}

int stop(const Service& service, const Options& options) {
    if (!is_root(service)) {
        return EXIT_PROBLEM;
    }
    if (options.if_slave && !has_left_over_services()) {
        say("{}: left alone, this host is not a slave that stands by", service.name);
        return EXIT_FINE;
    }
    const bool by_script = service.processes.empty();
    if (by_script && !program_is_there(service)) {
        return EXIT_PROBLEM;
    }
    const bool ran = by_script || !running_processes(service).empty();
    begin_changes();
    {
        const DetachedPrograms detached;
        (void)service.stop();
    }
    if (const std::string_view left = wrong_process(service, false); !left.empty()) {
        complain("{}: {} still runs; it cannot be killed now", service.name, left);
        return EXIT_PROBLEM;
    }
    if (ran) {
        log_change(fmt::format("service stop {}", service.name), {});
    }
    say("{}: {}", service.name, ran ? "stopped" : "did not run");
    return EXIT_FINE;
}

// A row for each boot service, and the exit code: fine if all run.
int show_boot_services(bool json) {
    Rows rows;
    std::size_t running = 0;
    for (const char* name : BOOT_SERVICES) {
        const std::vector<ProcessInfo> found = processes_named(name);
        running += found.empty() ? 0 : 1;
        rows.push_back({{{name},
                         {found.empty() ? "does not run" : processes_text(found),
                          found.empty() ? Colour::RED : Colour::GREEN}},
                        {{"service", name}, {"processes", json_of(found)}}});
    }
    if (json) {
        list_of(rows).print();
    } else {
        print_table(rows);
    }
    return running == std::size(BOOT_SERVICES) ? EXIT_FINE
           : running == 0                      ? EXIT_CANNOT_TELL
                                               : EXIT_PROBLEM;
}

}  // namespace

void add_service(const Command& tool) {
    const Command verb =
        tool.command("service", "Start and stop the boot services of this host, or show them.")
            .notes(NOTES);
    const auto options = std::make_shared<Options>();
    const Command starts = verb.command("start", "Start a service.");
    const Command stops = verb.command("stop", "Stop a service.");
    for (const Service& service : SERVICES) {
        const Command one = starts.command(service.name, service.summary);
        const Command other = stops.command(service.name, service.summary);
        if (moves(service)) {
            one.flag("--force", options->force,
                     "Start even on a slave that is not acting as master");
            other.flag("--if-slave", options->if_slave,
                       "Stop only if this host is the slave of the pair");
        }
        one.runs([&service, options] { return start(service, *options); });
        other.runs([&service, options] { return stop(service, *options); });
    }
    verb.command("status", "Show whether the boot services run.")
        .flag("--json", options->json, "Print machine-readable output")
        .runs([options] { return show_boot_services(options->json); });
}
