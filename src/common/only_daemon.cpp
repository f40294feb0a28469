#include "only_daemon.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <thread>
#include <utility>

#include "owned.h"

namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;

constexpr auto LONGEST_END = 2s;  // of a daemon that was killed, with all its memory
constexpr auto LOOK_AGAIN = 20ms;

int held = -1;  // the descriptor that holds the lock

struct flock whole_file() {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return lock;
}

bool is_taken(int fd) {
    const struct flock lock = whole_file();
    return fcntl(fd, F_SETLK, &lock) != 0 && (errno == EACCES || errno == EAGAIN);
}

pid_t holder_of(int fd) {
    struct flock lock = whole_file();
    return fcntl(fd, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK ? lock.l_pid : 0;
}

}  // namespace

std::optional<pid_t> claim_host(const char* path) {
    // For nobody else: a reader could lock it, too, and no daemon would start.
    OwnedFd fd(open(path, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!fd.valid()) {
        return std::nullopt;
    }
    const auto deadline = steady_clock::now() + LONGEST_END;
    while (is_taken(fd.get())) {
        if (steady_clock::now() >= deadline) {
            return holder_of(fd.get());
        }
        std::this_thread::sleep_for(LOOK_AGAIN);
    }
    held = fd.release();
    return std::nullopt;
}

void release_host() {
    if (const int fd = std::exchange(held, -1); fd >= 0) {
        (void)close(fd);
    }
}
