#include <csignal>
#include <memory>
#include <numeric>
#include <semaphore>
#include <vector>

#include "PK_SyncServer.h"
#include "support.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

TEST(Queue, IsFirstInFirstOutAndReusesNodesInTheOrderOfTheirReturn) {
    PKMemQueue<int> queue(2);
    EXPECT_EQ(queue.Get(), nullptr);
    auto* first = queue.Mem_New();
    auto* second = queue.Mem_New();
    ASSERT_EQ(second, first + 1);  // one block
    auto* third = queue.Mem_New();
    auto* fourth = queue.Mem_New();
    ASSERT_EQ(fourth, third + 1);  // another one
    queue.Put(third);
    queue.Put(first);
    EXPECT_EQ(queue.Get(), third);
    EXPECT_EQ(queue.Get(), first);
    EXPECT_EQ(queue.Get(), nullptr);
    queue.Free(first);
    queue.Free(third);
    EXPECT_EQ(queue.Mem_New(), first);
    EXPECT_EQ(queue.Mem_New(), third);
    queue.Put(fourth);
    EXPECT_EQ(queue.Get(), fourth);
    for (int block = 2; block < 1000; ++block) {
        ASSERT_EQ(queue.AddBlock(1), 0) << block;
    }
    EXPECT_EQ(queue.AddBlock(1), -1);
}

// What the jobs of one test do. Workers never end, so it stays until the process does.
struct Work {
    std::vector<int> done;  // the worker's, until `finished`
    std::binary_semaphore started{0}, go_on{0}, last_started{0}, last_go_on{0}, finished{0};
    int last = 0;
    bool term_blocked = false;
};

struct Job {
    Work* work;
    int number;
};

int run(Job job) {
    Work& work = *job.work;
    work.done.push_back(job.number);
    if (job.number == 0) {
        work.started.release();
        work.go_on.acquire();
    }
    if (job.number == work.last) {
        sigset_t blocked;
        pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
        work.term_blocked = sigismember(&blocked, SIGTERM) == 1;
        work.last_started.release();
        work.last_go_on.acquire();
        work.finished.release();
    }
    return 7;  // of no consequence
}

class SyncServer : public WithFiles {
protected:
    using Server = PK_SyncServer<Job>;
    static constexpr int LIMIT = Server::MAX_WAITING;
};

TEST_F(SyncServer, RunsJobsInOrderUpToItsLimitOfWakeUps) {
    auto* server = new Server;  // never deleted: its worker does not end
    auto* work = new Work;
    work->last = LIMIT + 1;
    ASSERT_EQ(server->Start(), 0);
    ASSERT_EQ(server->AddSyncWork({work, 0}, run), 0);
    work->started.acquire();  // its wake-up is consumed now
    EXPECT_EQ(server->AddSyncWork({work, -7}, nullptr), -2);
    EXPECT_THAT(logged(),
                HasSubstr("ERROR :lpSyncFunc == NULL src/PK_SyncServer---AddSyncWork---"));
    for (int n = 1; n <= LIMIT + 1; ++n) {
        ASSERT_EQ(server->AddSyncWork({work, n}, run), 0) << n;
    }
    EXPECT_EQ(server->AddSyncWork({work, -4}, run), -4);
    EXPECT_THAT(logged(),
                HasSubstr("ERROR :nNowSem:8193 > 8192 src/PK_SyncServer---AddSyncWork---"));

    // One wake-up drains the queue: it is empty, and the wake-ups still fill the limit.
    work->go_on.release();
    work->last_started.acquire();
    EXPECT_EQ(server->AddSyncWork({work, -4}, run), -4);
    work->last_go_on.release();
    work->finished.acquire();
    std::vector<int> expected(LIMIT + 2);
    std::iota(expected.begin(), expected.end(), 0);
    EXPECT_EQ(work->done, expected);
    EXPECT_TRUE(work->term_blocked);

    // Once the needless wake-ups are consumed, jobs are taken again.
    auto* later = new Work;
    later->last = 1;
    EXPECT_TRUE(eventually([&] { return server->AddSyncWork({later, 1}, run) == 0; }));
    later->last_go_on.release();
    later->finished.acquire();
    EXPECT_THAT(later->done, ElementsAre(1));
}

TEST_F(SyncServer, CanBeStoppedWithoutAStart) {
    auto server = std::make_unique<Server>();
    EXPECT_EQ(server->AddSyncWork({nullptr, 0}, run), -1);
    EXPECT_THAT(logged(), HasSubstr("ERROR :mQueue == NULL src/PK_SyncServer---AddSyncWork---"));
    EXPECT_EQ(server->Stop(), 0);
}

}  // namespace
