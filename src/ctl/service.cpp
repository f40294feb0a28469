// quorsyncctl service: the boot services of this host by hand.
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "configured_role.h"
#include "console.h"
#include "history/timeline.h"
#include "log.h"
#include "proc_info.h"
#include "role.h"
#include "services.h"
#include "session.h"
#include "text.h"
#include "verbs.h"

namespace {

constexpr const char* NOTES = R"(
A daemon that is killed while it acts as master leaves the boot services running, and the
next daemon does not know of them. The unit runs "stop boot --if-slave" before each start.
Examples:
  quorsyncctl service stop boot --if-slave
  quorsyncctl service start tftp)";

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
    bool force = false;
    bool if_slave = false;
};

LogState state_by_log() {
    return read_history(LOG_DIRECTORY, parse_since("yesterday", log_time_now())).timeline.state();
}

// Whether boot services that run here before the daemon starts are those of a take-over: the host
// is the slave, or its address in the pair is missing and its daemon has ended as acting master.
bool has_left_over_services() {
    const RoleDecision decision = own_configured_role().decision;
    const bool address_missing = decision.reason == RoleReason::NO_LOCAL_ADDRESS ||
                                 decision.reason == RoleReason::NOT_IN_PAIR;
    if (!address_missing) {
        return decision.role == ROLE_SLAVE;
    }
    const LogState state = state_by_log();
    return state.acting || state.services_left;
}

// Whether it is the slave, and its daemon runs and has not taken the boot services over.
bool stands_by_for_the_master() {
    return is_configured_slave() && !processes_named(PROGRAM_NAME).empty() &&
           !state_by_log().acting;
}

// The first process of the service that is not as wanted after a while, or an empty text.
std::string_view wrong_process(const Service& service, bool running) {
    const auto processes = split(service.processes, ',');
    const auto wrong =
        std::find_if(processes.begin(), processes.end(),
                     [running](std::string_view name) { return !comes_to_run(name, running); });
    return wrong == processes.end() ? std::string_view() : *wrong;
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

int start(const Service& service, const Options& options) {
    if (moves(service) && !options.force && stands_by_for_the_master()) {
        throw WrongUse(
            service.name,
            "this host is the slave: both servers would serve the clients; --force starts "
            "them anyway");
    }
    if (!program_is_there(service)) {
        return EXIT_PROBLEM;
    }
    begin_changes();
    const ServiceResult result = [&] {
        const DetachedPrograms detached;
        return service.start();
    }();
    const std::string_view missing =
        result.success ? wrong_process(service, true) : std::string_view();
    if (!result.success) {
        complain("{}: {} reports a failure; see its own log, or {} if that exists", service.name,
                 service.program, DHCP_START_LOG);
    } else if (!missing.empty()) {
        complain("{}: {} does not run; see its own log", service.name, missing);
    } else {
        say("{}: started", service.name);
    }
    return result.success && missing.empty() ? EXIT_FINE : EXIT_PROBLEM;
}

int stop(const Service& service, const Options& options) {
    if (options.if_slave && !has_left_over_services()) {
        say("{}: left alone, this host is not the slave", service.name);
        return EXIT_FINE;
    }
    const bool by_script = service.processes.empty();
    if (by_script && !program_is_there(service)) {
        return EXIT_PROBLEM;
    }
    begin_changes();
    {
        const DetachedPrograms detached;
        (void)service.stop();
    }
    if (const std::string_view left = wrong_process(service, false); !left.empty()) {
        complain("{}: {} still runs{}", service.name, left,
                 geteuid() == 0 ? "; it cannot be killed now" : "; run this as root");
        return EXIT_PROBLEM;
    }
    say("{}: stopped", service.name);
    return EXIT_FINE;
}

}  // namespace

void add_service(const Command& tool) {
    const Command verb =
        tool.command("service", "Start and stop the boot services of this host.").notes(NOTES);
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
}
