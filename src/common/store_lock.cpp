#include "store_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <map>
#include <thread>

namespace {

using namespace std::chrono_literals;

// A supervisor period holds three accesses; together they stay well below its 2 seconds.
constexpr auto FLOCK_WAIT = 250ms;
constexpr auto FLOCK_STEP = 2ms;

std::string directory_of(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

bool same_file(int fd, const char* path) {
    struct stat opened {};
    struct stat named {};
    return fstat(fd, &opened) == 0 && stat(path, &named) == 0 && opened.st_dev == named.st_dev &&
           opened.st_ino == named.st_ino;
}

void flock_until(int fd, std::chrono::steady_clock::time_point deadline) {
    while (flock(fd, LOCK_EX | LOCK_NB) != 0 && (errno == EWOULDBLOCK || errno == EINTR) &&
           std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(FLOCK_STEP);
    }
}

}  // namespace

struct StoreLock::PathMutex {
    std::mutex mutex;
};

// The mutex that all threads share for `path`. It goes with its last user, so that addresses from
// the wire, which name files, cannot fill the memory.
std::shared_ptr<StoreLock::PathMutex> StoreLock::mutex_of(const std::string& path) {
    static std::mutex guard;
    static std::map<std::string, std::weak_ptr<PathMutex>> mutexes;
    const std::lock_guard lock(guard);
    if (auto known = mutexes[path].lock()) {
        return known;
    }
    std::erase_if(mutexes, [](const auto& entry) { return entry.second.expired(); });
    auto created = std::make_shared<PathMutex>();
    mutexes[path] = created;
    return created;
}

StoreLock::StoreLock(const char* path)
    : path_(path), shared_(mutex_of(path_)), mutex_(shared_->mutex) {
    relock();
}

StoreLock::~StoreLock() {
    release();
}

void StoreLock::relock() {
    const auto deadline = std::chrono::steady_clock::now() + FLOCK_WAIT;
    const auto replaced = [this] {
        return exists_ ? !same_file(file_.get(), path_.c_str()) : access(path_.c_str(), F_OK) == 0;
    };
    // While we waited, another process may have put another file in place: lock that one then.
    do {
        exists_ = open_current();
        if (!file_.valid()) {
            return;  // no directory: the open that follows says so
        }
        flock_until(file_.get(), deadline);
    } while (replaced() && std::chrono::steady_clock::now() < deadline);
}

// Opens the file, or its directory when there is none. Returns whether it is the file.
bool StoreLock::open_current() {
    file_.reset(open(path_.c_str(), O_RDONLY | O_CLOEXEC));
    if (file_.valid()) {
        return true;
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
