#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

#include "keys.h"
#include "signals.h"
#include "slave/miss_counter.h"
#include "support.h"

namespace {

class MissCounter : public WithFiles {
protected:
    void SetUp() override {
        WithFiles::SetUp();
        slave_exit_requested = 0;
        init_semaphore();
    }
    void TearDown() override {
        semaphore_delete();
        slave_exit_requested = 0;
    }
};

// Walks through heartbeat periods: a letter "a" is one whose beat is answered, "." one that is not.
// Returns what each led to: "P" promotion, "S" step-down, "-" nothing.
std::string walk(std::string_view beats) {
    std::string actions;
    for (const char beat : beats) {
        count_missed_beat();
        const SlaveAction action = next_action({status, bottle, false, false});
        if (action == SlaveAction::PROMOTE) {
            status = STATUS_PROMOTED;
            actions += 'P';
        } else {
            status = action == SlaveAction::STEP_DOWN ? STATUS_STANDBY : status.load();
            actions += action == SlaveAction::STEP_DOWN ? 'S' : '-';
        }
        if (beat == 'a') {
            reset_bottle();
        }
    }
    return actions;
}

TEST_F(MissCounter, LeadsThroughTheTimelines) {
    const struct {
        const char* name;
        const char* beats;
        const char* actions;
    } rows[] = {
        {"no answer ever", ".......", "--P----"},
        {"the last possible answer", ".a...", "-----"},
        {"every third answered", "..a..a..a", "--PS-----"},
        {"three of four lost", "a...a...a...a", "----PS--PS--P"},
        {"one answer steps down", "......a....", "--P----S--P"},
    };
    put(CONFIG_DB, KEY_BEAT_OUT, "9");  // of no effect
    put(CONFIG_DB, KEY_DHCP, DHCP_ON);
    for (const auto& row : rows) {
        init_semaphore();
        EXPECT_EQ(walk(row.beats), row.actions) << row.name;
    }
    EXPECT_EQ(stored(CONFIG_DB, KEY_DHCP), "(absent)");  // every period takes it away
}

TEST_F(MissCounter, IsFreedByAProcessThatDiesHoldingIt) {
    const pid_t holder = fork();
    if (holder == 0) {
        _exit(semaphore_p() == 1 ? 0 : 1);
    }
    int result = -1;
    ASSERT_EQ(waitpid(holder, &result, 0), holder);
    ASSERT_EQ(result, 0);
    reset_bottle();  // would wait for ever
    EXPECT_EQ(bottle, SLAVE_BEAT_RESET);
}

// The semaphore under the counter's key, or -1.
int semaphore_there() {
    return semget(ftok(SEMAPHORE_KEY_PATH, 1), 1, 0);
}

TEST_F(MissCounter, MakesARemovedSemaphoreAnewForAllThreads) {
    for (int round = 1; round <= 3; ++round) {
        semaphore_delete();
        std::thread receiver(reset_bottle);
        count_missed_beat();
        receiver.join();
        EXPECT_THAT(bottle.load(), testing::AnyOf(SLAVE_BEAT_RESET, SLAVE_BEAT_RESET - 1));
        EXPECT_EQ(count_of(logged(), "ERROR :semaphore was removed, made anew\n"),
                  static_cast<std::size_t>(round));
        EXPECT_EQ(semctl(semaphore_there(), 0, GETVAL), 1);  // nobody set it while it was held
    }
}

TEST_F(MissCounter, SetsASemaphoreWhoseMakerEndedBeforeItDid) {
    semaphore_delete();
    const int theirs = semget(ftok(SEMAPHORE_KEY_PATH, 1), 1, IPC_CREAT | 0666);
    reset_bottle();  // would wait for ever
    EXPECT_EQ(bottle, SLAVE_BEAT_RESET);
    EXPECT_EQ(semaphore_there(), theirs);
    EXPECT_EQ(semctl(theirs, 0, GETVAL), 1);
}

TEST_F(MissCounter, LeavesASemaphoreThatIsHeldForLong) {
    ASSERT_EQ(semaphore_p(), 1);
    std::thread receiver(reset_bottle);
    ASSERT_TRUE(eventually([] { return count_of(logged(), "semaphore_p failed.\n") > 0; }));
    EXPECT_EQ(bottle, INITIAL_BOTTLE);
    ASSERT_EQ(semaphore_v(), 1);
    receiver.join();
    EXPECT_EQ(bottle, SLAVE_BEAT_RESET);
    EXPECT_EQ(semctl(semaphore_there(), 0, GETVAL), 1);
}

TEST_F(MissCounter, WakesWhoeverWaitsForARefill) {
    bottle = -1;
    await_refill(0, 1ms);
    EXPECT_EQ(bottle, -1);
    std::thread receiver(reset_bottle);
    await_refill(0, 1h);
    receiver.join();
    EXPECT_EQ(bottle, SLAVE_BEAT_RESET);
    await_refill(0, 1h);  // nothing to wait for
}

TEST_F(MissCounter, GivesUpOnceTheProcessIsAskedToStop) {
    slave_exit_requested = 1;
    semaphore_delete();
    semaphore_delete();  // by the signal handler and a thread
    report_semaphore_delete();
    EXPECT_EQ(logged(), "");
    reset_bottle();
    count_missed_beat();
    EXPECT_EQ(bottle, INITIAL_BOTTLE);
    EXPECT_EQ(count_of(logged(), "INFO :semaphore_p failed\n"), 2U);
    EXPECT_EQ(semaphore_there(), -1);
    init_semaphore();
    ASSERT_EQ(semctl(semaphore_there(), 0, IPC_RMID), 0);
    semaphore_delete();
    report_semaphore_delete();
    EXPECT_EQ(count_of(logged(), "INFO :Failed to delete semaphore\n"), 1U);
}

}  // namespace
