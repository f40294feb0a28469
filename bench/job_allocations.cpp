// Counts the memory allocations of the daemon's job server. Prints "JOBS START STEADY": the number
// of jobs, the allocations of its start, as a sign that the count works, and those of all the jobs.
#include <sched.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>

#include "PK_SyncServer.h"

namespace {

std::atomic<long> allocations = 0;
std::atomic<long> done = 0;

}  // namespace

// The whole process allocates through these, operator new included.
// NOLINTBEGIN(bugprone-reserved-identifier,readability-inconsistent-declaration-parameter-name)
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* old, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);

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
// NOLINTEND(bugprone-reserved-identifier,readability-inconsistent-declaration-parameter-name)

namespace {

using Server = PK_SyncServer<int>;

// Together below the limit of wake-ups, which the worker may leave unconsumed for a while; each
// burst fits the nodes that the server has from the start, and all of them use these again.
constexpr long BURST = 1000;
constexpr long BURSTS = 7;
static_assert((BURSTS + 1) * BURST < Server::MAX_WAITING);
static_assert(BURST < static_cast<long>(Server::NODES_PER_BLOCK));

int count_one(int /*number*/) {
    ++done;
    return 0;
}

void run_burst(Server& server) {
    const long end = done + BURST;
    for (long n = 0; n < BURST; ++n) {
        if (server.AddSyncWork(0, count_one) != 0) {
            std::exit(1);
        }
    }
    while (done != end) {
        (void)sched_yield();
    }
}

}  // namespace

int main() {
    const long at_first = allocations;
    Server server;
    if (server.Start() != 0) {
        return 1;
    }
    run_burst(server);
    const long started = allocations;
    for (long n = 0; n < BURSTS; ++n) {
        run_burst(server);
    }
    const long steady = allocations - started;
    std::printf("%ld %ld %ld\n", BURSTS * BURST, started - at_first, steady);
    std::fflush(stdout);
    _exit(0);  // the worker never ends
}
