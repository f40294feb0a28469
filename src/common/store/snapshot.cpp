#include "common/store/snapshot.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <thread>

#include "common/store/check.h"
#include "common/store/handle.h"
#include "common/store/page_walk.h"
#include "common/store/unnamed.h"

namespace {

using namespace std::chrono_literals;

// A foreign writer, which takes no lock, may be at work while we copy.
constexpr int COPIES = 3;
constexpr auto COPY_PAUSE = 20ms;

// A copy without a name, on the disk of the file or, where that is full or read only, in memory.
// An invalid descriptor with errno when it fits in neither.
OwnedFd copy_of(const StoreLock& lock) {
    const std::string directory = lock.path().substr(0, lock.path().rfind('/') + 1);
    OwnedFd copy(open(directory.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
    if (!copy.valid() || !copy_contents(lock.fd(), copy.get())) {
        copy.reset(memfd_create("snapshot", MFD_CLOEXEC));
        if (copy.valid() && !copy_contents(lock.fd(), copy.get())) {
            copy.reset();
        }
    }
    return copy;
}

Snapshot take_snapshot(const char* path) {
    StoreLock lock(path);
    if (const int missing = ensure_file(lock); missing != 0) {
        return {missing, OwnedFd()};
    }
    OwnedFd copy = copy_of(lock);
    if (!copy.valid()) {
        return {errno, OwnedFd()};
    }
    lock.release();
    const int result = check_pages(copy.get());
    return {result, std::move(copy)};
}

}  // namespace

Snapshot take_sound_snapshot(const char* path) {
    Snapshot snapshot = take_snapshot(path);
    for (int copies = 1; copies < COPIES && is_damage(snapshot.result); ++copies) {
        std::this_thread::sleep_for(COPY_PAUSE);
        snapshot = take_snapshot(path);
    }
    return snapshot;
}
