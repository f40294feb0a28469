// What `status` makes of a state page and the processes.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "ctl/moments.h"
#include "ctl/status/follow.h"
#include "ctl/status/nagios.h"
#include "ctl/status/verdict.h"
#include "ctl/verbs.h"
#include "owned.h"
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
        for (PageTime* time : {&page->period, &page->heartbeat_answered, &page->stamps_compared,
                               &page->heartbeat_received}) {
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

    // The data set under way came on so long ago.
    void moves(long seconds_ago = 1) const { page->transfer.moved = NOW - seconds_ago * SECOND; }

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
    host.page->unanswered = 6;
    EXPECT_THAT(host.told(), ElementsAre("no_answers", "1"));
    host.moves();
    host.page->transfer.kind = 2;
    EXPECT_THAT(host.told(), ElementsAre("0")) << "a push holds the answers up";
    set(host.page->heartbeat_received, 11);
    EXPECT_THAT(host.told(), ElementsAre("slave_silent", "1"));
    host.facts.unread = true;
    EXPECT_THAT(host.told(), ElementsAre("stands_still", "1"));
    host = Host(ROLE_MASTER);
    host.page->heartbeat_received.monotonic = 0;
    EXPECT_THAT(host.told(), ElementsAre("0")) << "it has just begun to serve";
    set(host.page->period, 11);
    EXPECT_THAT(host.told(), ElementsAre("slave_silent", "1"));
}

TEST(Status, NoticesDatagramsThatNobodyReads) {
    const OwnedFd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in own{};
    own.sin_family = AF_INET;
    own.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof own;
    auto* address = reinterpret_cast<sockaddr*>(&own);
    ASSERT_EQ(bind(fd.get(), address, size), 0);
    ASSERT_EQ(getsockname(fd.get(), address, &size), 0);
    EXPECT_FALSE(has_unread_datagrams(ntohs(own.sin_port)));
    ASSERT_EQ(sendto(fd.get(), "x", 1, 0, address, size), 1);
    EXPECT_TRUE(has_unread_datagrams(ntohs(own.sin_port)));
}

TEST(Status, GivesMomentsWithTheirZone) {
    const char* zone = std::getenv("TZ");
    const std::string before = zone == nullptr ? "" : zone;
    (void)setenv("TZ", "AAA-5:30", 1);
    EXPECT_EQ(json_moment(0, 7).line(),
              R"({"time":"1970-01-01 05:30:00","zone":"+05:30","epoch":0,"seconds_ago":7})");
    (void)setenv("TZ", "BBB3", 1);
    EXPECT_THAT(json_moment(0, 7).line(), HasSubstr(R"("1969-12-31 21:00:00","zone":"-03:00")"));
    (void)(zone == nullptr ? unsetenv("TZ") : setenv("TZ", before.c_str(), 1));
}

TEST(Status, OfACopyUnderWay) {
    for (const int role : {ROLE_MASTER, ROLE_SLAVE}) {
        Host host(role);
        host.page->quiet_answers = 0;
        host.page->sets_missing = 1 << 2;
        host.moves();
        EXPECT_THAT(host.told(), ElementsAre("0")) << "asked for";
        set(host.page->heartbeat_answered, 60);
        set(host.page->stamps_compared, 60);
        host.page->transfer.kind = 2;
        host.page->transfer.records = 43'000;
        EXPECT_EQ(judge(host.facts).sync.reason, "43,000 records of the client set");
        host.facts.list_records = 99'999;
        EXPECT_EQ(judge(host.facts).sync.reason,
                  "43,000 of about 99,999 records of the client set");
        host.page->sets[1].records = 100'000;
        set(host.page->sets[1].done, 500);
        EXPECT_THAT(judge(host.facts).sync.reason, HasSubstr(" about 100,000 "));
        EXPECT_THAT(host.told(), ElementsAre("0"));
        host.page->transfer.tries = 3;
        EXPECT_THAT(host.told(), ElementsAre("not_in_sync", "1"));
        host.page->transfer.tries = 1;
        host.moves(11);
        EXPECT_THAT(host.told(), ElementsAre("not_in_sync", "1"));
        EXPECT_THAT(judge(host.facts).sync.reason, HasSubstr("stands still at 43,000 of"));
        host.page->transfer.kind = 0;
        host.page->sets_missing = 0;
        set(host.page->sets[1].done, 2);
        EXPECT_THAT(host.told(), ElementsAre("0")) << "before the next answer";
        set(host.page->sets[0].done, 9);
        EXPECT_EQ(judge(host.facts).sync.reason, "a data set was copied whole 2 s ago");
        set(host.page->started, 1);
        set(host.page->heartbeat_answered, 2);
        EXPECT_THAT(host.told(), ElementsAre("3")) << "what the daemon before it knew";
        EXPECT_THAT(judge(host.facts).sync.reason, HasSubstr("nothing heard"));
    }
}

TEST(Status, TellsAStampThatIsNotHeardOfAndAListWithoutOne) {
    Host host(ROLE_MASTER);
    host.facts.settings = {{"client_db_version", "20261121120000"}};
    host.page->answered_stamps[0].set("null");
    host.page->answered_stamps[1].set("20261121110000");
    EXPECT_EQ(judge(host.facts).sync.verdict, InSync::COPYING);
    host.page->answered_stamps[1].set("20261121120000");
    EXPECT_EQ(judge(host.facts).sync.verdict, InSync::YES);

    std::tm bumped{};
    (void)strptime("20261121120000", "%Y%m%d%H%M%S", &bumped);
    bumped.tm_isdst = -1;
    const auto warned = [&host](std::int64_t seconds) {
        host.facts.list_changed = seconds * SECOND + 1;
        return judge(host.facts).warnings.size();
    };
    EXPECT_EQ(warned(std::mktime(&bumped) + 1), 0U) << "the master before may have made it";
    host.facts.stamped_here = true;
    EXPECT_EQ(warned(std::mktime(&bumped)), 0U);
    EXPECT_EQ(warned(std::mktime(&bumped) + 1), 1U);
    EXPECT_THAT(nagios_result(host.facts, judge(host.facts)).line, HasSubstr("QUORSYNCD WARNING"));
    host.facts.settings = {{"client_db_version", "by hand"}};
    host.page->answered_stamps[1].set("by hand");
    EXPECT_EQ(warned(2'000'000'000), 0U) << "nothing tells when it was made";
    PageDataSet& pushed = host.page->sets[1];
    pushed.stamp.set("by hand");
    pushed.done.wall = 1000 * SECOND;
    pushed.done.monotonic = NOW;
    pushed.duration = 10 * SECOND;
    EXPECT_EQ(warned(989), 0U);
    EXPECT_EQ(warned(990), 1U) << "it may have come behind the push";
    host.page->started.monotonic = NOW + 1;
    EXPECT_EQ(warned(999), 0U) << "the slave that became the master had received it";
    EXPECT_EQ(warned(1000), 1U);
}

TEST(Status, OfAFlappingSlave) {
    Host host(ROLE_SLAVE);
    set(host.page->take_over, 10);
    host.page->take_overs_before[0] = NOW - 20 * SECOND;
    EXPECT_THAT(host.told(), ElementsAre("0"));
    host.page->take_overs_before[1] = NOW - 40 * SECOND;
    EXPECT_THAT(host.told(), ElementsAre("flapping", "1"));
    EXPECT_THAT(judge(host.facts).problems.front().text, HasSubstr("within 30 s"));
    set(host.page->take_over, 400);
    host.page->take_overs_before[1] = -2601 * SECOND;
    EXPECT_THAT(host.told(), ElementsAre("0"));
}

TEST(Status, ForNagios) {
    const auto result = [](const Host& host) {
        return nagios_result(host.facts, judge(host.facts));
    };
    Host host(ROLE_MASTER);
    host.page->counters.take_overs = 2;
    EXPECT_EQ(result(host).code, 0);
    EXPECT_THAT(
        result(host).line,
        testing::MatchesRegex("QUORSYNCD OK - master, in sync: [^|]* \\| "
                              "answer_age=1.0s;;;0 copied=0;;;0 missed=0c take_overs=2c .*"));
    host.page->log_error = ENOSPC;
    EXPECT_EQ(result(host).code, 1);
    host.facts.services.clear();
    EXPECT_EQ(result(host).code, 2);
    host = Host(ROLE_SLAVE);
    set(host.page->stamps_compared, 11);
    EXPECT_EQ(result(host).code, 3);
    host.facts.config_failure = "config.db is gone";
    EXPECT_THAT(result(host).line, HasSubstr("QUORSYNCD UNKNOWN - config.db is gone; slave"));
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
