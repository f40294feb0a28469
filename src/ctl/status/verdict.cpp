#include "ctl/status/verdict.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <optional>

#include "ctl/console.h"
#include "ctl/verbs.h"
#include "data_sets.h"
#include "keys.h"
#include "log.h"
#include "peer_message.h"
#include "role.h"
#include "stamps.h"

namespace {

using namespace std::chrono_literals;

// Beats come every 2 seconds; one that is older has been missed.
constexpr auto FRESH = 10s;
constexpr std::int64_t QUIET_ANSWERS = 2;

// A set that was begun so often, one soon after the other, will not come to its end by itself.
constexpr std::int64_t TOO_MANY_TRIES = 3;

// So many heartbeats without an answer take longer than FRESH.
constexpr std::int64_t TOO_MANY_UNANSWERED = 6;

// Three take-overs within that are flapping.
constexpr auto FLAPPING = 1h;

std::string seconds_text(std::chrono::nanoseconds time) {
    return age_text(std::chrono::duration_cast<std::chrono::seconds>(time).count());
}

bool is_fresh(const PageTime& time, const HostFacts& facts) {
    return time.ever() && age_of(time, facts) <= FRESH;
}

std::chrono::nanoseconds age_of(std::int64_t monotonic, const HostFacts& facts) {
    return std::chrono::nanoseconds(facts.now - monotonic);
}

// Whether it has not happened for too long, counted from the taking of the role.
bool is_overdue(const PageTime& time, const HostFacts& facts) {
    return !is_fresh(time.ever() ? time : facts.page->period, facts);
}

bool moves(const HostFacts& facts) {
    const std::int64_t moved = facts.page->transfer.moved;
    return moved != 0 && age_of(moved, facts) <= FRESH;
}

std::string missing_sets(const StatePage& page) {
    const bool config = (page.sets_missing & 1 << DATA_KIND_CONFIG) != 0;
    const bool clients = (page.sets_missing & 1 << DATA_KIND_CLIENT) != 0;
    return config && clients ? "neither data set has arrived whole"
           : config          ? "the config set has not arrived whole"
                             : "the client set has not arrived whole";
}

SyncVerdict judge_beats(const HostFacts& facts, const PageTime& beat, const char* partner) {
    if (!is_fresh(beat, facts) || !happened_since_start(beat, facts)) {
        return {InSync::CANNOT_TELL, beat.ever()
                                         ? fmt::format("nothing heard from the {} for {}", partner,
                                                       seconds_text(age_of(beat, facts)))
                                         : fmt::format("nothing heard from the {}", partner)};
    }
    return {InSync::YES, {}};
}

// Of a set that is under way, or asked for.
SyncVerdict judge_copy(const HostFacts& facts) {
    const StatePage& page = *facts.page;
    const bool under_way = page.transfer.kind != 0;
    if (page.transfer.tries >= TOO_MANY_TRIES) {
        return {InSync::NO, fmt::format("a data set was begun {} times, one soon after the other",
                                        page.transfer.tries.load())};
    }
    if (!moves(facts)) {
        return {InSync::NO, under_way ? fmt::format("stands still at {}",
                                                    progress_text(page, facts.list_records))
                                      : missing_sets(page)};
    }
    return {InSync::COPYING,
            under_way ? progress_text(page, facts.list_records) : "a data set is asked for"};
}

// The last data set, if it came to its end a moment ago and none is missing; null for none.
const PageDataSet* fresh_set(const HostFacts& facts) {
    const auto& sets = facts.page->sets;
    const PageDataSet& last = sets[0].done.monotonic > sets[1].done.monotonic ? sets[0] : sets[1];
    const bool fresh = is_fresh(last.done, facts) && happened_since_start(last.done, facts);
    return fresh && facts.page->sets_missing == 0 ? &last : nullptr;
}

SyncVerdict whole_set(const PageDataSet& set, const HostFacts& facts) {
    return {InSync::YES, fmt::format("a data set was copied whole {} ago",
                                     seconds_text(age_of(set.done, facts)))};
}

SyncVerdict judge_slave(const HostFacts& facts) {
    const StatePage& page = *facts.page;
    SyncVerdict heard = judge_beats(facts, page.stamps_compared, "master");
    const bool told = heard.verdict == InSync::YES || moves(facts);
    if (page.transfer.kind != 0 || (told && page.sets_missing != 0)) {
        return judge_copy(facts);
    }
    const PageDataSet* set = fresh_set(facts);
    if (set != nullptr && set->done.monotonic > page.stamps_compared.monotonic) {
        return whole_set(*set, facts);
    }
    if (heard.verdict != InSync::YES) {
        return heard;
    }
    return {InSync::YES, fmt::format("the stamps were equal {} ago",
                                     seconds_text(age_of(page.stamps_compared, facts)))};
}

// The set whose stamp in config.db is another than that in the last answer; null for none.
const DataSet* unheard_set(const HostFacts& facts) {
    for (const DataSet& set : DATA_SETS) {
        const std::string answered = facts.page->answered_stamps[set.kind - 1].get();
        const auto found = facts.settings.find(set.stamp_key);
        const std::string_view own = found == facts.settings.end()
                                         ? std::string_view(NO_STAMP)
                                         : comparable_stamp(found->second);
        if (!answered.empty() && facts.config_failure.empty() && answered != own) {
            return &set;
        }
    }
    return nullptr;
}

// A slave whose stamps differ asks at once: answers that it does not react to say that it has all.
SyncVerdict judge_master(const HostFacts& facts) {
    const StatePage& page = *facts.page;
    SyncVerdict heard = judge_beats(facts, page.heartbeat_answered, "slave");
    const bool told = heard.verdict == InSync::YES || moves(facts);
    const bool quiet = page.quiet_answers >= QUIET_ANSWERS;
    if (page.transfer.kind != 0 || (told && page.sets_missing != 0 && !quiet)) {
        return judge_copy(facts);
    }
    const PageDataSet* fresh = fresh_set(facts);
    if (heard.verdict != InSync::YES && fresh == nullptr) {
        return heard;
    }
    if (const DataSet* set = unheard_set(facts); set != nullptr) {
        return {InSync::COPYING,
                fmt::format("the slave has not heard of the new stamp of the {} set", set->name)};
    }
    if (quiet) {
        return {InSync::YES, fmt::format("the last {} answered heartbeats led to no request",
                                         page.quiet_answers.load())};
    }
    return fresh != nullptr ? whole_set(*fresh, facts)
                            : SyncVerdict{InSync::CANNOT_TELL,
                                          "too few heartbeats since the start or the last push"};
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
        if (role_ == HostRole::MASTER && !facts_.daemons.front().stopped) {
            judge_heartbeats();
        }
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
    void judge_heartbeats();
    void judge_role();
    void judge_services();
    void judge_log();

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

// Of a master, which sends none itself.
void Judge::judge_heartbeats() {
    const StatePage& page = *facts_.page;
    const PageTime& last = page.heartbeat_received;
    const std::string since = seconds_text(age_of(last.ever() ? last : page.period, facts_));
    if (is_overdue(last, facts_) && facts_.unread) {
        add("stands_still",
            fmt::format("{} stands still: it has read nothing from its port for {}",
                        describe(facts_.daemons.front()), since),
            "look for a full or slow disk; then \"systemctl restart quorsyncd\"");
    } else if (is_overdue(last, facts_)) {
        add("slave_silent",
            fmt::format("no heartbeat of the slave {} for {}: nobody would take over",
                        page.slave_ip.get(), since),
            "\"quorsyncctl status\" on the slave, then the line between both");
    } else if (page.unanswered >= TOO_MANY_UNANSWERED &&
               is_overdue(page.heartbeat_answered, facts_) && !moves(facts_)) {
        add("no_answers",
            fmt::format("the last {} heartbeats of the slave are not answered",
                        page.unanswered.load()),
            "see that the slave can be reached at TCP port 13233; if it can, the daemon hangs: "
            "\"systemctl restart quorsyncd\"");
    }
}

void Judge::judge_role() {
    const StatePage& page = *facts_.page;
    const std::int64_t third_last = page.take_overs_before[1];
    if (third_last != 0 && age_of(third_last, facts_) < FLAPPING) {
        add("flapping",
            fmt::format(
                "flapping: the last 3 take-overs were within {}",
                seconds_text(std::chrono::nanoseconds(page.take_over.monotonic - third_last))),
            "look at the line to the master, then at the master's load");
    }
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

void Judge::judge_services() {
    for (const char* service : missing_services(facts_)) {
        add("service_missing", fmt::format("{} does not run on the {}", service, role_name(role_)),
            "\"quorsyncctl service start boot\"");
    }
    if (serves_beside_master(facts_)) {
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

constexpr std::int64_t NANOSECONDS = 1'000'000'000;

// The end of the second in which a stamp of 14 digits was made, in nanoseconds since 1970; nothing
// for any other text.
std::optional<std::int64_t> time_of_stamp(const std::string& stamp) {
    std::tm local{};
    const char* end =
        stamp.size() == 14 ? strptime(stamp.c_str(), "%Y%m%d%H%M%S", &local) : nullptr;
    if (end == nullptr || *end != '\0') {
        return std::nullopt;
    }
    local.tm_isdst = -1;
    return (std::int64_t{std::mktime(&local)} + 1) * NANOSECONDS - 1;
}

// When the list was last known to be what the stamp in config.db stands for; nothing where neither
// this host made the stamp nor the state page tells of a copy with it. A master pushes the list as
// it was at the begin of the push; a slave has it written by the end of the copy.
std::optional<std::int64_t> time_of_list(const HostFacts& facts) {
    const auto stamp = facts.settings.find(KEY_CLIENT_VERSION);
    if (stamp == facts.settings.end()) {
        return std::nullopt;
    }
    const auto made = facts.stamped_here ? time_of_stamp(stamp->second) : std::nullopt;
    const PageDataSet& set = facts.page->sets[DATA_KIND_CLIENT - 1];
    if (!set.done.ever() || set.stamp.get() != comparable_stamp(stamp->second)) {
        return made;
    }
    const bool pushed = happened_since_start(set.done, facts);  // else by the daemon before
    return std::max(set.done.wall - (pushed ? set.duration.load() : 0), made.value_or(0));
}

std::vector<Problem> warnings_of(const HostFacts& facts) {
    if (role_of(facts) != HostRole::MASTER || !facts.list_changed) {
        return {};
    }
    const auto stamped = time_of_list(facts);
    if (!stamped || *facts.list_changed <= *stamped) {
        return {};
    }
    return {{"not_bumped",
             fmt::format("{} was changed after its last stamp: no slave fetches that", CLIENT_DB),
             "\"quorsyncctl store bump client\""}};
}

}  // namespace

Verdict judge(const HostFacts& facts) {
    const SyncVerdict sync = judge_sync(facts);
    return {sync, Judge(facts).problems(sync), warnings_of(facts)};
}

int exit_code_of(const HostFacts& facts, const Verdict& verdict) {
    if (!verdict.problems.empty()) {
        return EXIT_PROBLEM;
    }
    const InSync sync = verdict.sync.verdict;
    const bool known = sync == InSync::YES || sync == InSync::COPYING;
    return facts.config_failure.empty() && known ? EXIT_FINE : EXIT_CANNOT_TELL;
}
