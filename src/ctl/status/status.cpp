// quorsyncctl status: this host of the pair at a glance.
#include <cstdio>
#include <memory>
#include <string>

#include "ctl/console.h"
#include "ctl/peer/peer_file.h"
#include "ctl/status/follow.h"
#include "ctl/status/host_facts.h"
#include "ctl/status/metrics.h"
#include "ctl/status/nagios.h"
#include "ctl/status/peer.h"
#include "ctl/status/report.h"
#include "ctl/status/verdict.h"
#include "ctl/verbs.h"

namespace {

constexpr const char* NOTES = R"(
Shows role, daemon, boot services, stamps, heartbeats, take-overs, data sets and whether the pair is
in sync, as this host knows it: from the daemon's state page /run/quorsyncd.state, the processes and
the files. The exit code is 1, with a line PROBLEM for each state that needs an operator: the daemon
does not run, stands still, was stopped or has no role; two run; this host has taken over; it is not in sync; a
boot service is missing where this host serves, or runs where it stands by; the slave or its answers
are missing; take-overs are frequent; the daily log cannot be written. It is 0 while a data set is
being copied. With --peer it is 1 also if the settings of both servers contradict each other, or
those of the other server cannot be fetched through its file service. --nagios ends with 0 OK,
1 WARNING, 2 CRITICAL or 3 UNKNOWN.

Examples:
  quorsyncctl status
  quorsyncctl status --json
  quorsyncctl status --peer 192.168.0.2
  quorsyncctl status --follow
  quorsyncctl status --nagios
  quorsyncctl status --prometheus > /tmp/quorsyncd.prom)";

struct Options {
    bool json = false;
    bool follow = false;
    bool prometheus = false;
    bool nagios = false;
    std::string peer;
};

int show_status(const Options& options) {
    if (options.json + options.follow + options.prometheus + options.nagios > 1) {
        throw WrongUse("status", "--json, --follow, --prometheus and --nagios exclude each other");
    }
    if (!options.peer.empty() && (options.follow || options.prometheus || options.nagios)) {
        throw WrongUse("--peer", "goes with --json only");
    }
    if (options.follow) {
        return follow_host();
    }
    if (!options.peer.empty()) {
        return show_both_sides(peer_address(options.peer), options.json);
    }
    const HostFacts facts = host_facts();
    const Verdict verdict = judge(facts);
    if (options.nagios) {
        const NagiosResult result = nagios_result(facts, verdict);
        print_line(result.line);
        return result.code;
    }
    if (!facts.config_failure.empty()) {
        complain("{}; \"quorsyncctl check\" shows the remedy", facts.config_failure);
    }
    const Rows rows = report_of(facts, verdict);
    if (options.json) {
        object_of(rows).print();
    } else if (options.prometheus) {
        std::fputs(metrics_of(facts, verdict).c_str(), stdout);
    } else {
        print_table(rows);
    }
    return exit_code_of(facts, verdict);
}

}  // namespace

void add_status(const Command& tool) {
    const auto options = std::make_shared<Options>();
    tool.command("status", "Show the state of this host and its daemon.")
        .notes(NOTES)
        .flag("--json", options->json, "Print machine-readable output")
        .flag("--follow", options->follow, "Print a line for each change until ended")
        .flag("--prometheus", options->prometheus, "Print metrics for Prometheus")
        .flag("--nagios", options->nagios, "Print one line for Nagios and its like")
        .peer_option(options->peer, "Show the settings and stamps of the other server, too")
        .runs([options] { return show_status(*options); });
}
