// A private copy of a database file, so that a long walk neither keeps others from the file nor
// sees it change.
#include <db.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <thread>

#include "common/store/check.h"
#include "common/store/handle.h"
#include "common/store/unnamed.h"
#include "log.h"
#include "store.h"

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

struct Snapshot {
    int result;  // 0 or the library's error code
    OwnedFd file;
};

Snapshot take_snapshot(const char* path) {
    StoreLock lock(path);
    if (const int missing = ensure_file(lock); missing != 0) {
        return {missing, OwnedFd()};
    }
    if (const int damaged = verify_store(lock); damaged != 0) {
        return {damaged, OwnedFd()};
    }
    OwnedFd copy = copy_of(lock);
    if (!copy.valid()) {
        return {errno, OwnedFd()};
    }
    // Nobody has touched the file since it was found sound, so its copy is.
    if (verdict_known(lock)) {
        return {0, std::move(copy)};
    }
    lock.release();
    const int result = verify_file(copy.get(), name_of(copy));
    return {result, std::move(copy)};
}

Snapshot take_sound_snapshot(const char* path) {
    Snapshot snapshot = take_snapshot(path);
    for (int copies = 1; copies < COPIES && is_damage(snapshot.result); ++copies) {
        std::this_thread::sleep_for(COPY_PAUSE);
        snapshot = take_snapshot(path);
    }
    return snapshot;
}

}  // namespace

std::unique_ptr<Store> db_open_snapshot(const char* path) {
    Snapshot snapshot = take_sound_snapshot(path);
    DB* db = create_handle(0);
    if (db == nullptr) {
        log_message(msg::NO_STORE_HANDLE, db_strerror(1));
        return nullptr;
    }
    int result = snapshot.result;
    if (result == 0) {
        result =
            db->open(db, nullptr, name_of(snapshot.file).c_str(), nullptr, DB_HASH, DB_RDONLY, 0);
    }
    std::unique_ptr<Store> store(new Store(path, db, result));
    store->snapshot_ = std::move(snapshot.file);
    return store;
}
