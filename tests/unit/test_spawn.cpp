#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <csignal>

#include "events.h"
#include "spawn.h"
#include "support.h"

namespace {

using testing::HasSubstr;
using testing::MatchesRegex;

constexpr const char* PROGRAM = "/usr/local/bin/program";
constexpr const char* OUTPUT = "/etc/quoradmind/output";
constexpr const char* SEEN = "/etc/quoradmind/seen";

// Writes down what programs find here: their descriptors (the last is the list's own), blocked and
// ignored signals. 32 and 33, which the C library keeps for itself, do not matter.
constexpr const char* LOOK_AROUND =
    "ls /proc/self/fd >/etc/quoradmind/seen; "
    "grep -E 'Sig(Blk|Ign)' /proc/self/status >>/etc/quoradmind/seen";
constexpr const char* CLEAN_SLATE = "0\n1\n2\n3\nSigBlk:\t0{16}\nSigIgn:\t0{7}[01][08]0{7}\n";

class Spawn : public WithFiles {};

TEST_F(Spawn, WhatIsStartedHasACleanSlate) {
    // The caller has a descriptor that stays open over exec, and ignored, handled, blocked signals.
    const OwnedFd low(open("/dev/null", O_RDONLY));
    const OwnedFd high(fcntl(low.get(), F_DUPFD, 200));
    (void)std::signal(SIGPIPE, SIG_IGN);
    (void)std::signal(SIGHUP, [](int) {});
    sigset_t blocked;
    sigset_t before;
    sigset_t after;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &blocked, &before);
    EXPECT_EQ(run_shell(LOOK_AROUND), 0);
    EXPECT_THAT(contents(SEEN), MatchesRegex(CLEAN_SLATE));
    write_file(SEEN, "");
    write_file(OUTPUT, "");
    // Not a shell, which would clean its mask itself.
    write_program(PROGRAM, "", "/bin/cat /proc/self/status");
    EXPECT_EQ(run_foreground({OUTPUT, LOOK_AROUND, PROGRAM}), 0);
    EXPECT_THAT(contents(SEEN), MatchesRegex(CLEAN_SLATE));
    EXPECT_THAT(contents(OUTPUT),
                HasSubstr("SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n"));
    pthread_sigmask(SIG_SETMASK, &before, &after);
    (void)std::signal(SIGPIPE, SIG_DFL);
    (void)std::signal(SIGHUP, SIG_DFL);
    EXPECT_EQ(sigismember(&after, SIGTERM), 1);  // the caller's own stays
    EXPECT_EQ(sigismember(&after, SIGINT), 0);
}

TEST_F(Spawn, OutputGoesToAFileThatExists) {
    write_program(PROGRAM, "echo to stdout; echo to stderr >&2; echo $#");
    write_file(OUTPUT, "......................... older");
    EXPECT_EQ(run_foreground({OUTPUT, "echo shell", PROGRAM}), 0);
    EXPECT_EQ(contents(OUTPUT), "shell\nto stdout\nto stderr\n0\nder");  // not cut, never created
    testing::internal::CaptureStdout();
    EXPECT_EQ(run_foreground({"/etc/quoradmind/none", nullptr, PROGRAM}), 0);
    EXPECT_THAT(testing::internal::GetCapturedStdout(), HasSubstr("to stdout\n"));
    EXPECT_FALSE(std::filesystem::exists("/etc/quoradmind/none"));
}

TEST_F(Spawn, OnlyTheProgramItselfCanFail) {
    EXPECT_EQ(WTERMSIG(run_shell("kill -9 $$")), SIGKILL);
    EXPECT_EQ(run_foreground({OUTPUT, "exit 9", "/usr/local/bin/none"}), 0);
    write_program(PROGRAM, "kill -9 $$");
    EXPECT_EQ(WTERMSIG(run_foreground({OUTPUT, nullptr, PROGRAM})), SIGKILL);
}

TEST_F(Spawn, ThreadsWaitForTheirOwnChildren) {
    write_program(PROGRAM, "exit 5");
    std::vector<std::thread> threads;
    for (int status = 1; status <= 3; ++status) {
        threads.emplace_back([status] {
            const std::string command = "exit " + std::to_string(status);
            for (int n = 0; n < 20; ++n) {
                EXPECT_EQ(WEXITSTATUS(run_shell(command.c_str())), status);
                EXPECT_EQ(WEXITSTATUS(run_foreground({OUTPUT, nullptr, PROGRAM})), 5);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST_F(Spawn, AnEventIsOneCallOfItsTool) {
    write_event_tool();
    EXPECT_EQ(post_event(EVENT_ERROR, EVENT_UNKNOWN_TYPE, 4, "%s", std::string(300, 'm').c_str()),
              0);
    EXPECT_EQ(events(), "quorsyncd,2,720000,22,0,720010,4," + std::string(127, 'm') + ",\n");
}

TEST_F(Spawn, AnEventToolThatHangsHoldsNobodyUp) {
    EXPECT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    write_program(
        "/usr/local/bin/evpost_ex",
        fmt::format("for n in $(seq 300); do if [ -e {} ]; then echo posted >{}; exit; fi; "
                    "sleep 0.1; done",
                    SEEN, EVENTS));
    EXPECT_EQ(post_event(EVENT_NOTICE, EVENT_TOOK_OVER, 0, nullptr), 0);
    write_file(SEEN, "");
    EXPECT_EQ(events(), "posted\n");
}

}  // namespace
