// The state page: published, read by others, and never in anybody's way.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <optional>
#include <string>
#include <thread>

#include "only_daemon.h"
#include "state_page.h"
#include "support.h"

namespace {

class StatePageFile : public WithFiles {
protected:
    static std::string path() { return "/etc/quoradmind/page"; }

    // A child that publishes a page at path() and waits to be killed.
    static pid_t other_daemon(PagePhase phase) {
        int ready[2];
        EXPECT_EQ(pipe(ready), 0);
        const pid_t child = fork();
        if (child == 0) {
            page::own().phase = static_cast<std::int64_t>(phase);
            page::answer_received();
            page::Transfer reception;
            reception.receives(1, 9);
            reception.ends(true, "of the one before");
            const char done = publish_state_page("x", path().c_str()) == 0 ? 'y' : 'n';
            (void)!write(ready[1], &done, 1);
            for (;;) {
                pause();
            }
        }
        char done = 'n';
        EXPECT_EQ(read(ready[0], &done, 1), 1);
        EXPECT_EQ(done, 'y');
        (void)close(ready[0]);
        (void)close(ready[1]);
        return child;
    }
};

TEST_F(StatePageFile, TellsWhatHappenedBeforeAndAfterItWasPublished) {
    const auto before = page::own().counters.take_overs.load();
    page::takes_over(1, 2);
    const mode_t mask = umask(0077);
    ASSERT_EQ(publish_state_page("2.1", path().c_str()), 0);
    (void)umask(mask);
    struct stat info {};
    ASSERT_EQ(stat(path().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777U, 0644U);
    const StatePageView view(path().c_str());
    ASSERT_NE(view.get(), nullptr);
    const StatePage& seen = *view.get();
    EXPECT_EQ(seen.version.get(), "2.1");
    EXPECT_TRUE(is_alive(seen));
    EXPECT_EQ(seen.counters.take_overs, before + 1);
    page::takes_over(1, 2);
    EXPECT_EQ(seen.counters.take_overs, before + 2);

    const auto whole = seen.counters.transfers_whole.load();
    const auto broken = seen.counters.transfers_broken.load();
    page::request_received(2);
    {
        page::Transfer push;
        push.begins(2);
        page::records_sent(3, 3000, 0);
        EXPECT_EQ(seen.transfer.kind, 2);
        EXPECT_EQ(seen.transfer.bytes, 3000);
    }
    EXPECT_EQ(seen.counters.transfers_broken, broken + 1);
    EXPECT_NE(seen.sets_missing, 0);
    page::Transfer push;
    push.begins(2);
    page::records_sent(3, 3000, 0);
    push.ends(true, "stamp");
    EXPECT_EQ(seen.sets_missing, 0);
    EXPECT_EQ(seen.transfer.kind, 0);
    EXPECT_EQ(seen.sets[1].records, 2);
    EXPECT_EQ(seen.sets[1].stamp.get(), "stamp");
    EXPECT_EQ(seen.counters.transfers_whole, whole + 1);
    EXPECT_EQ(seen.transfer.tries, 0);
    for (int n = 1; n <= 3; ++n) {
        push.begins(2);
        push.ends(n != 2, "stamp");
        EXPECT_EQ(seen.transfer.tries, n) << "nothing new has come of it";
    }

    page::heartbeat_received(7);
    page::answer_sent(8, "a", "b");
    EXPECT_EQ(seen.unanswered, 1);
    page::answer_sent(7, "a", "b");
    page::answer_sent(7, "a", "b");
    EXPECT_EQ(std::pair(seen.unanswered.load(), seen.sets_missing.load()), std::pair(0L, 0L));
    EXPECT_GE(seen.quiet_answers, 2);
    page::answer_sent(7, "a", "c");
    EXPECT_EQ(seen.quiet_answers, 1) << "the slave has yet to react to another stamp";
    EXPECT_NE(seen.sets_missing, 0);

    const auto second = seen.take_over.monotonic.load();
    page::takes_over(1, 2);
    page::takes_over(1, 2);
    EXPECT_EQ(seen.take_overs_before[1], second);
}

TEST_F(StatePageFile, OfADaemonAtWorkIsNotReplaced) {
    for (const auto& [phase, failure] :
         {std::pair(PagePhase::SERVING, EBUSY), std::pair(PagePhase::STOPPED, 0)}) {
        const pid_t other = other_daemon(phase);
        const auto seen = failure == 0 ? std::nullopt : std::optional(other);
        EXPECT_EQ(claim_host("/etc/no/lock", path().c_str()), seen) << "as an ordinary user";
        EXPECT_EQ(publish_state_page("2.1", path().c_str()), failure);
        EXPECT_EQ(StatePageView(path().c_str()).get()->pid, failure == 0 ? getpid() : other);
        EXPECT_EQ(publish_state_page("2.1", path().c_str(), true), 0) << "it has left its work";
        (void)kill(other, SIGKILL);
        (void)waitpid(other, nullptr, 0);
    }
    ASSERT_EQ(unlink(path().c_str()), 0);
    const pid_t killed = other_daemon(PagePhase::WAITING);
    (void)kill(killed, SIGKILL);
    const StatePageView left(path().c_str());
    siginfo_t ended{};
    (void)waitid(P_PID, static_cast<id_t>(killed), &ended, WEXITED | WNOWAIT);
    EXPECT_FALSE(is_alive(*left.get())) << "a process that only waits to be reaped";
    page::own().sets[0].done.monotonic = 0;  // the child wrote into this page, too, as it shares it
    page::own().sets[0].stamp.set("");
    page::own().heartbeat_answered.monotonic = 0;
    page::own().stamps_compared.monotonic = 0;
    EXPECT_EQ(publish_state_page("2.1", path().c_str()), 0);
    (void)waitpid(killed, nullptr, 0);
    const StatePageView fresh(path().c_str());
    EXPECT_EQ(fresh.get()->sets[0].stamp.get(), "of the one before");
    EXPECT_TRUE(fresh.get()->sets[0].done.ever());
    EXPECT_TRUE(fresh.get()->heartbeat_answered.ever());
    EXPECT_FALSE(fresh.get()->stamps_compared.ever());
}

TEST_F(StatePageFile, OfAnotherLayoutIsRefused) {
    EXPECT_EQ(StatePageView(path().c_str()).error(), ENOENT);
    EXPECT_EQ(publish_state_page("2.1", "/etc/no/page"), ENOENT);
    ASSERT_EQ(publish_state_page("2.1", path().c_str()), 0);
    page::own().layout = StatePage::LAYOUT + 1;
    EXPECT_EQ(StatePageView(path().c_str()).error(), EPROTO);
    page::own().layout = StatePage::LAYOUT;
    EXPECT_EQ(StatePageView(path().c_str()).error(), 0);
    const int fd = open(path().c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    EXPECT_EQ(write(fd, "longer", 6), 6);
    (void)close(fd);
    EXPECT_EQ(StatePageView(path().c_str()).error(), EPROTO);
}

TEST(StatePageText, IsNeverReadInParts) {
    PageText<16> text{};
    std::atomic<bool> end = false;
    const std::string a(128, 'a');
    const std::string b(128, 'b');
    text.set(a);
    std::thread writer([&] {
        while (!end) {
            text.set(b);
            text.set(a);
        }
    });
    int torn = 0;
    for (int n = 0; n < 20'000; ++n) {
        const std::string seen = text.get();
        torn += seen.empty() || seen == a || seen == b ? 0 : 1;
    }
    end = true;
    writer.join();
    EXPECT_EQ(torn, 0);
}

}  // namespace
