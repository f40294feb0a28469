#include "common/store/handle.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <thread>

#include "store.h"

namespace {

using namespace std::chrono_literals;

constexpr int FILE_MODE = 0664;
constexpr std::time_t LEFTOVER_SECONDS = 2;
constexpr auto LEFTOVER_STEP = 100ms;
constexpr int LEFTOVER_TRIES = 40;  // by then it is old, unless others create it again and again

// Whether the library's flushes on this thread are left out.
thread_local bool without_flushes = false;

// 0 or an errno.
int flush_data(int fd) {
    int result;
    do {
        result = fdatasync(fd);
    } while (result != 0 && errno == EINTR);
    return result == 0 ? 0 : errno;
}

int flush_for_library(int fd) {
    return without_flushes ? 0 : flush_data(fd);
}

// Creates the missing file and locks it.
int create_file(StoreLock& lock) {
    if (const int left = remove_leftover_creation(lock.path()); left != 0) {
        return left;
    }
    if (const int failed = create_database(lock.path(), FILE_MODE); failed != 0) {
        return failed;
    }
    lock.relock();
    return lock.exists() ? 0 : ENOENT;
}

}  // namespace

DB* create_handle(std::uint32_t cache_bytes) {
    static const int hooked = db_env_set_func_fsync(flush_for_library);
    DB* db = nullptr;
    if (hooked != 0 || db_create(&db, nullptr, 0) != 0) {
        return nullptr;
    }
    // Without a callback the library writes its own messages to stderr.
    db->set_errcall(db, [](const DB_ENV*, const char*, const char*) {});
    db->set_msgcall(db, [](const DB_ENV*, const char*) {});
    if (cache_bytes != 0) {
        (void)db->set_cachesize(db, 0, cache_bytes, 1);  // a smaller cache is only slower
    }
    return db;
}

int close_and_flush(DB* db, int fd) {
    without_flushes = true;
    const int closed = db->close(db, 0);
    without_flushes = false;
    const int flushed = flush_data(fd);
    return closed != 0 ? closed : flushed;
}

int create_database(const std::string& path, int mode) {
    DB* db = create_handle(0);
    if (db == nullptr) {
        return ENOMEM;
    }
    const int opened = db->open(db, nullptr, path.c_str(), nullptr, DB_HASH, DB_CREATE, mode);
    const int closed = db->close(db, 0);
    return opened != 0 ? opened : closed;
}

int ensure_file(StoreLock& lock) {
    if (lock.refused()) {
        return EBUSY;
    }
    if (lock.exists() || lock.error() != 0) {
        return lock.error();
    }
    return store_use() == StoreUse::INSPECT ? ENOENT : create_file(lock);
}

std::string creation_of(const std::string& path) {
    const std::size_t name = path.rfind('/') + 1;
    return path.substr(0, name) + "__db." + path.substr(name);
}

int remove_leftover_creation(const std::string& path) {
    const std::string leftover = creation_of(path);
    struct stat status {};
    for (int tries = 0; tries < LEFTOVER_TRIES && stat(leftover.c_str(), &status) == 0; ++tries) {
        // A clock that was set may have put the file's time into the future: that is old, too.
        if (std::abs(std::time(nullptr) - status.st_mtime) > LEFTOVER_SECONDS) {
            return unlink(leftover.c_str()) == 0 || errno == ENOENT ? 0 : errno;
        }
        std::this_thread::sleep_for(LEFTOVER_STEP);
    }
    return 0;
}
