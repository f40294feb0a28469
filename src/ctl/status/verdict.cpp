#include "ctl/status/verdict.h"

#include <fmt/format.h>

#include <cstring>

#include "ctl/console.h"
#include "ctl/verbs.h"
#include "log.h"
#include "peer_message.h"
#include "role.h"

namespace {

using namespace std::chrono_literals;

// Beats come every 2 seconds; one that is older has been missed.
constexpr auto FRESH = 10s;
constexpr std::int64_t QUIET_ANSWERS = 2;

// The boot services are being stopped for so long after a step-down.
constexpr auto STOPPING = 5s;

std::string seconds_text(std::chrono::nanoseconds time) {
    return age_text(std::chrono::duration_cast<std::chrono::seconds>(time).count());
}

bool is_fresh(const PageTime& time, const HostFacts& facts) {
    return time.ever() && age_of(time, facts) <= FRESH;
}

std::string missing_sets(const StatePage& page) {
    const bool config = (page.sets_missing & 1 << DATA_KIND_CONFIG) != 0;
    const bool clients = (page.sets_missing & 1 << DATA_KIND_CLIENT) != 0;
    return config && clients ? "neither data set has arrived whole"
           : config          ? "the config set has not arrived whole"
                             : "the client set has not arrived whole";
}

SyncVerdict judge_beats(const HostFacts& facts, const PageTime& beat, const char* partner) {
    if (!is_fresh(beat, facts)) {
        return {InSync::CANNOT_TELL, beat.ever()
                                         ? fmt::format("nothing heard from the {} for {}", partner,
                                                       seconds_text(age_of(beat, facts)))
                                         : fmt::format("nothing heard from the {}", partner)};
    }
    return {InSync::YES, {}};
}

SyncVerdict judge_slave(const HostFacts& facts) {
    const StatePage& page = *facts.page;
    SyncVerdict heard = judge_beats(facts, page.stamps_compared, "master");
    if (heard.verdict != InSync::YES) {
        return heard;
    }
    if (page.sets_missing != 0) {
        return {InSync::NO, missing_sets(page)};
    }
    return {InSync::YES, fmt::format("the stamps were equal {} ago",
                                     seconds_text(age_of(page.stamps_compared, facts)))};
}

// A slave whose stamps differ asks at once: answers that it does not react to say that it has all.
SyncVerdict judge_master(const HostFacts& facts) {
    const StatePage& page = *facts.page;
    SyncVerdict heard = judge_beats(facts, page.heartbeat_answered, "slave");
    if (heard.verdict != InSync::YES) {
        return heard;
    }
    if (page.quiet_answers >= QUIET_ANSWERS) {
        return {InSync::YES, fmt::format("the last {} answered heartbeats led to no request",
                                         page.quiet_answers.load())};
    }
    if (page.sets_missing != 0) {
        return {InSync::NO, missing_sets(page)};
    }
    return {InSync::CANNOT_TELL, "too few heartbeats since the start or the last push"};
}

SyncVerdict judge_sync(const HostFacts& facts) {
    switch (role_of(facts)) {
        case HostRole::MASTER:
            return judge_master(facts);
        case HostRole::SLAVE:
            return judge_slave(facts);
        case HostRole::ACTING_MASTER:
            return {InSync::CANNOT_TELL, "acting as master: the master does not answer"};
        case HostRole::ENDED:
            return {InSync::CANNOT_TELL, "the daemon does not run"};
        case HostRole::UNKNOWN:
            return {InSync::CANNOT_TELL, "the daemon has no state page"};
        case HostRole::WAITING:
        case HostRole::STOPPED:
            break;
    }
    return {InSync::CANNOT_TELL, "the daemon has no role"};
}

// Collects the problems of one host.
class Judge {
public:
    explicit Judge(const HostFacts& facts) : facts_(facts), role_(role_of(facts)) {}

    std::vector<Problem> problems(const SyncVerdict& sync) {
        judge_processes();
        if (facts_.page != nullptr && role_ != HostRole::ENDED) {
            judge_role();
            judge_services();
            judge_log();
        }
        if (sync.verdict == InSync::NO) {
            add("not_in_sync", sync.reason,
                "if it lasts, \"quorsyncctl timeline\" on both servers shows what interrupts it");
        }
        return std::move(problems_);
    }

private:
    void add(const char* name, std::string text, std::string remedy) {
        problems_.push_back({name, std::move(text), std::move(remedy)});
    }
    void judge_processes();
    void judge_role();
    void judge_services();
    void judge_log();
    void add_missing_services(const char* where);

    const HostFacts& facts_;
    HostRole role_;
    std::vector<Problem> problems_;
};

void Judge::judge_processes() {
    if (facts_.daemons.empty()) {
        add("daemon_missing", "the daemon does not run",
            "\"quorsyncctl check\", then \"systemctl start quorsyncd\"");
        return;
    }
    if (facts_.daemons.size() > 1) {
        add("two_daemons", fmt::format("{} daemons run", facts_.daemons.size()),
            "end all but the one of the unit; its pid: \"systemctl show -P MainPID quorsyncd\"");
    }
    const ProcessInfo& daemon = facts_.daemons.front();
    const bool beats = role_ == HostRole::SLAVE || role_ == HostRole::ACTING_MASTER;
    if (daemon.stopped) {
        add("stands_still", fmt::format("{} is stopped by a signal", describe(daemon)),
            fmt::format("\"kill -CONT {}\"", daemon.pid));
    } else if (beats && !is_fresh(facts_.page->period, facts_)) {
        add("stands_still",
            fmt::format("{} stands still: no heartbeat for {}", describe(daemon),
                        seconds_text(age_of(facts_.page->period, facts_))),
            "look for a full or slow disk and a boot service whose start hangs; then "
            "\"systemctl restart quorsyncd\"");
    }
}

void Judge::judge_role() {
    const StatePage& page = *facts_.page;
    if (role_ == HostRole::WAITING) {
        const auto reason = static_cast<RoleReason>(page.role_reason.load());
        add("no_role", fmt::format("waits for a role: {}", reason_text(reason)),
            "\"quorsyncctl check\" shows what is missing");
    } else if (role_ == HostRole::STOPPED) {
        add("stopped", "the slave has obeyed SIGTERM; its process stays and does nothing",
            "\"systemctl restart quorsyncd\"; \"kill -9\" ends one started by hand");
    } else if (role_ == HostRole::ACTING_MASTER) {
        add("acting_master", fmt::format("serves in place of {}", page.master_ip.get()),
            "restore the master or the line to it; this host then steps down by itself");
    }
}

void Judge::add_missing_services(const char* where) {
    for (const char* service : BOOT_SERVICES) {
        if (!runs(facts_.services, service)) {
            add("service_missing", fmt::format("{} does not run on the {}", service, where),
                "\"quorsyncctl service start boot\"");
        }
    }
}

void Judge::judge_services() {
    const StatePage& page = *facts_.page;
    if (role_ == HostRole::MASTER) {
        add_missing_services("master");
    }
    const auto result = static_cast<PageResult>(page.services_result.load());
    if (role_ == HostRole::ACTING_MASTER && result != PageResult::NONE) {
        add_missing_services("acting master");
    }
    const bool stopping = page.step_down.ever() && age_of(page.step_down, facts_) < STOPPING;
    if (role_ == HostRole::SLAVE && !facts_.services.empty() && !stopping) {
        add("both_serve",
            fmt::format("{} runs on a slave that stands by: both servers may serve",
                        facts_.services.front().name),
            "\"quorsyncctl service stop boot\" on this host");
    }
}

void Judge::judge_log() {
    if (const auto error = facts_.page->log_error.load(); error != 0) {
        add("log_not_written",
            fmt::format("the daily log cannot be written: {}", strerror(static_cast<int>(error))),
            fmt::format("look at {}: its mount, its modes, its free space", LOG_DIRECTORY));
    }
}

}  // namespace

Verdict judge(const HostFacts& facts) {
    const SyncVerdict sync = judge_sync(facts);
    return {sync, Judge(facts).problems(sync)};
}

int exit_code_of(const HostFacts& facts, const Verdict& verdict) {
    if (!verdict.problems.empty()) {
        return EXIT_PROBLEM;
    }
    const bool known = facts.config_failure.empty() && verdict.sync.verdict == InSync::YES;
    return known ? EXIT_FINE : EXIT_CANNOT_TELL;
}

const char* set_name(std::int64_t kind) {
    return kind == DATA_KIND_CONFIG ? "config set" : "client set";
}
