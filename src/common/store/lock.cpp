#include "common/store/lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <map>
#include <thread>
#include <utility>

#include "log.h"

namespace {

using namespace std::chrono_literals;

using Clock = std::chrono::steady_clock;

// How long one holder is borne. A supervisor period has three accesses; together they stay well
// below its 2 seconds.
constexpr auto FLOCK_WAIT = 250ms;
constexpr auto PATIENT_WAIT = 10s;  // longer than a push of many clients keeps their file
constexpr auto FLOCK_STEP = 1ms;

// Far behind the contents of any file.
constexpr off_t MARKS = off_t{1} << 61U;

std::atomic<StoreUse> use_of_this_process = StoreUse::SERVE;

std::string directory_of(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

// The byte whose lock marks a flock that was given at that moment.
off_t mark_of(Clock::time_point moment) {
    return MARKS +
           std::chrono::duration_cast<std::chrono::microseconds>(moment.time_since_epoch()).count();
}

// Whether anybody has marked the file's flock between these moments, and still holds it.
bool marked_between(int fd, Clock::time_point from, Clock::time_point to) {
    struct flock mark {};
    mark.l_type = F_WRLCK;  // which every mark is in the way of
    mark.l_whence = SEEK_SET;
    mark.l_start = mark_of(from);
    mark.l_len = mark_of(to) - mark.l_start + 1;
    return fcntl(fd, F_OFD_GETLK, &mark) == 0 && mark.l_type != F_UNLCK;
}

// False when another process has kept its lock for `limit` of this wait. The kernel's own queue has
// no limit, and gives the lock to a newcomer that is quicker than those who wait.
bool flock_within(int fd, int operation, std::chrono::milliseconds limit) {
    const auto begin = Clock::now();
    auto unmarked_since = begin;
    while (flock(fd, operation | LOCK_NB) != 0 && (errno == EWOULDBLOCK || errno == EINTR)) {
        const auto now = Clock::now();
        if (marked_between(fd, now - limit, now)) {
            unmarked_since = now;
        }
        // One of ours has held it since before, or programs that mark nothing have.
        if (now - begin > limit && (marked_between(fd, Clock::time_point(), now - limit) ||
                                    now - unmarked_since > limit)) {
            return false;
        }
        std::this_thread::sleep_for(FLOCK_STEP);
    }
    mark_flock(fd);
    return true;
}

}  // namespace

void set_store_use(StoreUse use) {
    use_of_this_process = use;
}

StoreUse store_use() {
    return use_of_this_process;
}

struct StoreLock::PathMutex {
    std::mutex mutex;
};

// The mutex that all threads share for `path`. It goes with its last user, so that addresses from
// the wire, which name files, cannot fill the memory.
std::shared_ptr<StoreLock::PathMutex> StoreLock::mutex_of(const std::string& path) {
    static std::mutex registry;
    static std::map<std::string, std::weak_ptr<PathMutex>> mutexes;
    const std::lock_guard lock(registry);
    if (auto known = mutexes[path].lock()) {
        return known;
    }
    std::erase_if(mutexes, [](const auto& entry) { return entry.second.expired(); });
    auto created = std::make_shared<PathMutex>();
    mutexes[path] = created;
    return created;
}

void mark_flock(int fd) {
    struct flock mark {};
    mark.l_type = F_RDLCK;  // several holders may share a moment, as they may share the lock
    mark.l_whence = SEEK_SET;
    mark.l_start = mark_of(Clock::now());
    mark.l_len = 1;
    (void)fcntl(fd, F_OFD_SETLK, &mark);  // without it, others bear us for the same time
}

StoreLock::StoreLock(const char* path)
    : path_(path), shared_(mutex_of(path_)), mutex_(shared_->mutex) {
    relock();
}

StoreLock::~StoreLock() {
    release();
}

void StoreLock::relock() {
    const auto limit = store_use() == StoreUse::SERVE ? FLOCK_WAIT : PATIENT_WAIT;
    const int operation = store_use() == StoreUse::INSPECT ? LOCK_SH : LOCK_EX;
    const auto replaced = [this] {
        return exists_ ? !is_current() : access(path_.c_str(), F_OK) == 0;
    };
    // While we waited, another process may have put another file in place: lock that one then.
    do {
        exists_ = open_current();
        if (!file_.valid()) {
            return;  // an error, or no directory: the open that follows says so
        }
        given_up_ = !flock_within(file_.get(), operation, limit);
    } while (replaced());
}

bool StoreLock::is_current() const {
    struct stat opened {};
    struct stat named {};
    return fstat(file_.get(), &opened) == 0 && stat(path_.c_str(), &named) == 0 &&
           opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

void StoreLock::announce_change() {
    if (given_up_ && !std::exchange(announced_, true)) {
        log_message(msg::CHANGED_WITHOUT_LOCK, path_.c_str());
    }
}

// Opens the file, or its directory when there is none. Returns whether it is the file.
bool StoreLock::open_current() {
    file_.reset(open(path_.c_str(), O_RDONLY | O_CLOEXEC));
    error_ = file_.valid() || errno == ENOENT || errno == ENOTDIR ? 0 : errno;
    if (file_.valid() || error_ != 0) {
        return file_.valid();
    }
    file_.reset(open(directory_of(path_).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return false;
}

void StoreLock::release() {
    file_.reset();
    if (mutex_.owns_lock()) {
        mutex_.unlock();
    }
    shared_.reset();
}
