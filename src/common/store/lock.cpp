#include "common/store/lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <map>
#include <thread>

namespace {

using namespace std::chrono_literals;

// A supervisor period holds three accesses; together they stay well below its 2 seconds.
constexpr auto FLOCK_WAIT = 250ms;
constexpr auto PATIENT_WAIT = 10s;  // longer than a push of many clients keeps their file
constexpr auto FLOCK_STEP = 2ms;

std::atomic<StoreUse> use_of_this_process = StoreUse::SERVE;

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

// False when another process kept its lock until the deadline.
bool flock_until(int fd, int operation, std::chrono::steady_clock::time_point deadline) {
    while (flock(fd, operation | LOCK_NB) != 0 && (errno == EWOULDBLOCK || errno == EINTR)) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(FLOCK_STEP);
    }
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

StoreLock::StoreLock(const char* path)
    : path_(path), shared_(mutex_of(path_)), mutex_(shared_->mutex) {
    relock();
}

StoreLock::~StoreLock() {
    release();
}

void StoreLock::relock() {
    const bool serving = store_use() == StoreUse::SERVE;
    const int operation = store_use() == StoreUse::INSPECT ? LOCK_SH : LOCK_EX;
    const auto deadline = std::chrono::steady_clock::now() + (serving ? FLOCK_WAIT : PATIENT_WAIT);
    const auto replaced = [this] {
        return exists_ ? !same_file(file_.get(), path_.c_str()) : access(path_.c_str(), F_OK) == 0;
    };
    // While we waited, another process may have put another file in place: lock that one then.
    do {
        exists_ = open_current();
        if (!file_.valid()) {
            return;  // an error, or no directory: the open that follows says so
        }
        refused_ = !flock_until(file_.get(), operation, deadline) && !serving;
    } while (replaced() && std::chrono::steady_clock::now() < deadline);
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
