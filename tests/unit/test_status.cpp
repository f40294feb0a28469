// What `status` makes of a state page and the processes.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "ctl/status/follow.h"
#include "ctl/status/verdict.h"
#include "ctl/verbs.h"
#include "role.h"
#include "support.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr std::int64_t SECOND = 1'000'000'000;
constexpr std::int64_t NOW = 1000 * SECOND;

void set(PageTime& time, long seconds_ago) {
    time.monotonic = NOW - seconds_ago * SECOND;
    time.wall = time.monotonic.load();
}

// A host of a pair that is well, to be spoilt.
struct Host {
    explicit Host(int role) {
        facts.daemons = {{10, "quorsyncd", 0}};
        facts.now = NOW;
        page->phase = static_cast<std::int64_t>(PagePhase::SERVING);
        page->role = role;
        for (PageTime* time : {&page->period, &page->heartbeat_answered, &page->stamps_compared}) {
            set(*time, 1);
        }
        page->quiet_answers = 2;
        if (role != ROLE_SLAVE) {
            facts.services = {{11, "quordhcpd", 0}, {12, "stagd", 0}};
            page->services_result = static_cast<std::int64_t>(PageResult::SUCCESS);
        }
        facts.page = page;
    }

    // The names of its problems and its exit code.
    std::vector<std::string> told() const {
        const Verdict verdict = judge(facts);
        std::vector<std::string> names;
        for (const Problem& problem : verdict.problems) {
            EXPECT_FALSE(problem.text.empty() || problem.remedy.empty()) << problem.name;
            EXPECT_EQ(std::count(std::begin(PROBLEM_NAMES), std::end(PROBLEM_NAMES), problem.name),
                      1);
            names.push_back(problem.name);
        }
        names.push_back(std::to_string(exit_code_of(facts, verdict)));
        return names;
    }

    std::shared_ptr<StatePage> page = std::make_shared<StatePage>();
    HostFacts facts;
};

TEST(Status, OfASlave) {
    EXPECT_THAT(Host(ROLE_SLAVE).told(), ElementsAre("0"));
    Host host(ROLE_SLAVE);
    host.facts.services = {{12, "stagd", 0}};
    EXPECT_THAT(host.told(), ElementsAre("both_serve", "1"));
    set(host.page->step_down, 2);
    EXPECT_THAT(host.told(), ElementsAre("0")) << "they are being stopped";
    set(host.page->step_down, 20);
    host.page->sets_missing = 1 << 2;
    EXPECT_THAT(host.told(), ElementsAre("both_serve", "not_in_sync", "1"));
    host = Host(ROLE_SLAVE);
    set(host.page->stamps_compared, 11);
    EXPECT_THAT(host.told(), ElementsAre("3"));
    set(host.page->period, 11);
    host.page->log_error = ENOSPC;
    EXPECT_THAT(host.told(), ElementsAre("stands_still", "log_not_written", "1"));
    EXPECT_THAT(judge(host.facts).problems.back().text, HasSubstr("No space left"));
    host = Host(ROLE_SLAVE);
    host.facts.daemons.front().stopped = true;
    host.facts.daemons.push_back({20, "quorsyncd", 0});
    EXPECT_THAT(host.told(), ElementsAre("two_daemons", "stands_still", "1"));
    host = Host(ROLE_SLAVE);
    host.facts.config_failure = "unreadable";
    EXPECT_THAT(host.told(), ElementsAre("3"));
}

TEST(Status, OfAnActingMaster) {
    Host host(ROLE_ACTING_MASTER);
    EXPECT_THAT(host.told(), ElementsAre("acting_master", "1"));
    host.facts.services.pop_back();
    EXPECT_THAT(host.told(), ElementsAre("acting_master", "service_missing", "1"));
    host.page->services_result = static_cast<std::int64_t>(PageResult::NONE);
    EXPECT_THAT(host.told(), ElementsAre("acting_master", "1")) << "they are being started";
}

TEST(Status, OfAMaster) {
    EXPECT_THAT(Host(ROLE_MASTER).told(), ElementsAre("0"));
    Host host(ROLE_MASTER);
    host.facts.services.clear();
    EXPECT_THAT(host.told(), ElementsAre("service_missing", "service_missing", "1"));
    host = Host(ROLE_MASTER);
    host.page->sets_missing = 1 << 1;
    EXPECT_THAT(host.told(), ElementsAre("0")) << "the slave no longer asks for it";
    host.page->quiet_answers = 1;
    EXPECT_THAT(host.told(), ElementsAre("not_in_sync", "1"));
    host.page->sets_missing = 0;
    EXPECT_THAT(host.told(), ElementsAre("3"));
    host = Host(ROLE_MASTER);
    set(host.page->heartbeat_answered, 11);
    set(host.page->period, 500);  // a master has none
    EXPECT_THAT(host.told(), ElementsAre("3"));
}

TEST(Status, WithoutARole) {
    Host host(ROLE_SLAVE);
    host.page->phase = static_cast<std::int64_t>(PagePhase::WAITING);
    host.page->role_reason = static_cast<std::int64_t>(RoleReason::NO_MASTER);
    EXPECT_THAT(host.told(), ElementsAre("no_role", "1"));
    EXPECT_THAT(judge(host.facts).problems.front().text, HasSubstr("master"));
    host.page->phase = static_cast<std::int64_t>(PagePhase::STOPPED);
    EXPECT_THAT(host.told(), ElementsAre("stopped", "1"));
    host.facts.daemons.clear();
    EXPECT_THAT(host.told(), ElementsAre("daemon_missing", "1"));
    host = Host(ROLE_SLAVE);
    host.facts.page.reset();
    EXPECT_THAT(host.told(), ElementsAre("3")) << "an older daemon";
}

TEST(Status, FollowsWhatChanges) {
    Host host(ROLE_SLAVE);
    Followed before = followed_of(host.facts);
    EXPECT_THAT(changes_between(nullptr, before), ElementsAre("role    slave"));
    const auto changes = [&] {
        const Followed now = followed_of(host.facts);
        const auto lines = changes_between(&before, now);
        before = now;
        return lines;
    };
    EXPECT_THAT(changes(), ElementsAre());
    host.page->transfer.kind = 2;
    host.page->transfer.records = 7;
    set(host.page->heartbeat_answered, 6);
    EXPECT_THAT(changes(), ElementsAre("answer  lost", "sync    client set under way, 7 records"));
    host.page->transfer.records = 9;
    EXPECT_THAT(changes(), ElementsAre("sync    client set under way, 9 records"));
    host.page->transfer.kind = 0;
    host.page->counters.transfers_broken = 1;
    set(host.page->heartbeat_answered, 1);
    EXPECT_THAT(changes(), ElementsAre("answer  back", "sync    client set broken off"));
    host.page->counters.transfers_whole = 1;
    set(host.page->sets[0].done, 1);
    host.page->sets[0].records = 2;
    host.page->role = ROLE_ACTING_MASTER;
    EXPECT_THAT(changes(),
                ElementsAre("role    acting master", "sync    config set whole, 2 records"));
    host.page->fetching = 1;
    host.page->counters.fetches_failed = 1;
    host.page->fetch_server.set("10.0.0.2");
    EXPECT_THAT(changes(), ElementsAre("fetch   settings of 10.0.0.2 failed",
                                       "fetch   settings of 10.0.0.2 under way"));
    host.facts.daemons.clear();
    EXPECT_THAT(changes(), ElementsAre("role    none: the daemon does not run"));
}

}  // namespace
