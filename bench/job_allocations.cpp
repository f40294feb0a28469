// Counts the memory allocations of the daemon's job server: those of its start, as a sign that the
// count works, and those of jobs in the steady state.
//
//   job_allocations JOBS
//
// Prints "START STEADY".
#include <atomic>
#include <cstdio>
#include <cstdlib>

#include "PK_SyncServer.h"

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* old, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
}

namespace {

std::atomic<long> allocations = 0;
std::atomic<long> done = 0;

int count_one(int /*number*/) {
    ++done;
    return 0;
}

constexpr long BURST = 1000;  // fewer than the nodes that the server has from the start

// Queues bursts of jobs and lets the worker finish each.
void run(PK_SyncServer<int>& server, long jobs) {
    const long end = done + jobs;
    for (long queued = 0; queued < jobs;) {
        for (long n = 0; n < BURST && queued < jobs; ++n, ++queued) {
            if (server.AddSyncWork(0, count_one) != 0) {
                std::exit(1);
            }
        }
        while (done != end - (jobs - queued)) {
            sched_yield();
        }
    }
}

}  // namespace

// All allocations of this process, operator new included, come through these.
extern "C" {
void* malloc(std::size_t size) {
    ++allocations;
    return __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) {
    ++allocations;
    return __libc_calloc(count, size);
}
void* realloc(void* old, std::size_t size) {
    ++allocations;
    return __libc_realloc(old, size);
}
void* aligned_alloc(std::size_t alignment, std::size_t size) {
    ++allocations;
    return __libc_memalign(alignment, size);
}
}

int main(int argc, char** argv) {
    if (argc != 2) {
        return 2;
    }
    const long at_first = allocations;
    PK_SyncServer<int> server;
    if (server.Start() != 0) {
        return 1;
    }
    run(server, BURST);
    const long started = allocations;
    run(server, std::atol(argv[1]));
    const long steady = allocations - started;
    std::printf("%ld %ld\n", started - at_first, steady);
    std::fflush(stdout);
    _exit(0);  // the worker never ends
}
