#include "common/store/check.h"

#include <db.h>
#include <fcntl.h>
#include <malloc.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <map>
#include <mutex>
#include <thread>
#include <tuple>

#include "common/store/handle.h"
#include "common/store/page.h"
#include "owned.h"
#include "store.h"

namespace {

using namespace std::chrono_literals;

constexpr auto SECOND_LOOK = 20ms;
constexpr std::uint32_t VERIFY_CACHE = 16U << 20U;  // halves the time on a large file
constexpr off_t LARGE_FILE = 1 << 20;
constexpr std::size_t MAX_VERDICTS = 64;

// What changes whenever a file's contents do.
using FileIdentity = std::tuple<dev_t, ino_t, off_t, std::time_t, long>;

FileIdentity identity_of(const struct stat& status) {
    return {status.st_dev, status.st_ino, status.st_size, status.st_ctim.tv_sec,
            status.st_ctim.tv_nsec};
}

// Whether the next change would get another time: the system's clock of files ticks slowly.
bool has_settled(const struct stat& status) {
    constexpr auto TICK = 20ms;
    const auto changed = std::chrono::seconds(status.st_ctim.tv_sec) +
                         std::chrono::nanoseconds(status.st_ctim.tv_nsec);
    const auto age = std::chrono::system_clock::now().time_since_epoch() - changed;
    return age > TICK || age < -TICK;  // a clock may have been set
}

// Verdicts "sound" by path. Guarded by its own mutex: the locks of two paths do not exclude each
// other.
class Verdicts {
public:
    bool known(const std::string& path, const FileIdentity& identity) {
        const std::lock_guard lock(mutex_);
        const auto found = sound_.find(path);
        return found != sound_.end() && found->second == identity;
    }
    void keep(const std::string& path, const FileIdentity& identity) {
        const std::lock_guard lock(mutex_);
        if (sound_.size() >= MAX_VERDICTS) {
            sound_.clear();  // addresses from the wire name files: never more than some
        }
        sound_[path] = identity;
    }

private:
    std::mutex mutex_;
    std::map<std::string, FileIdentity> sound_;
};

Verdicts& verdicts() {
    static Verdicts instance;
    return instance;
}

}  // namespace

int verify_file(int fd, const std::string& path) {
    struct stat status {};
    if (fstat(fd, &status) != 0) {
        return errno;
    }
    const off_t size = status.st_size;
    if (harms_the_verifier(fd, size)) {
        return DB_VERIFY_BAD;
    }
    DB* db = create_handle(size > LARGE_FILE ? VERIFY_CACHE : 0);
    // verify() closes the handle, whatever its result. A key in the wrong bucket is only not found:
    // looking for one, a sixth of the time, is left out.
    const int result =
        db == nullptr ? ENOMEM : db->verify(db, path.c_str(), nullptr, nullptr, DB_NOORDERCHK);
    if (size > LARGE_FILE) {
        (void)malloc_trim(0);  // it notes every page: much memory in small pieces
    }
    return result;
}

int verify_store(const StoreLock& lock) {
    struct stat before {};
    if (fstat(lock.fd(), &before) != 0) {
        return errno;
    }
    if (verdicts().known(lock.path(), identity_of(before))) {
        return 0;
    }
    int result = verify_file(lock.fd(), lock.path());
    if (result != 0) {
        std::this_thread::sleep_for(SECOND_LOOK);
        (void)fstat(lock.fd(), &before);
        result = verify_file(lock.fd(), lock.path());
    }
    if (result == 0 && has_settled(before)) {
        verdicts().keep(lock.path(), identity_of(before));
    }
    return result;
}

bool verdict_known(const StoreLock& lock) {
    struct stat now {};
    return fstat(lock.fd(), &now) == 0 && verdicts().known(lock.path(), identity_of(now));
}

bool is_damage(int result) {
    // EINVAL: not a database of this kind at all.
    return result == DB_VERIFY_BAD || result == DB_RUNRECOVERY || result == DB_PAGE_NOTFOUND ||
           result == EINVAL;
}

void keep_verdict(const StoreLock& lock) {
    if (lock.exists()) {
        keep_verdict(lock.fd(), lock.path());
    }
}

void keep_verdict(int fd, const std::string& path) {
    struct stat now {};
    // A small file is verified faster than it is worth trusting beside foreign writers.
    if (fstat(fd, &now) == 0 && now.st_size > LARGE_FILE) {
        verdicts().keep(path, identity_of(now));
    }
}

int db_verify(const char* path) {
    const OwnedFd fd(open(path, O_RDONLY | O_CLOEXEC));
    return fd.valid() ? verify_file(fd.get(), path) : errno;
}
