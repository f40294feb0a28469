#include "only_daemon.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <thread>
#include <utility>

#include "owned.h"
#include "state_page.h"

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

enum class Claim : std::uint8_t { OURS, TAKEN, UNKNOWN };

Claim try_lock(int fd) {
    const struct flock lock = whole_file();
    if (fcntl(fd, F_SETLK, &lock) == 0) {
        return Claim::OURS;
    }
    return errno == EACCES || errno == EAGAIN ? Claim::TAKEN : Claim::UNKNOWN;
}

std::optional<pid_t> holder_of(int fd) {
    struct flock lock = whole_file();
    return fcntl(fd, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK ? lock.l_pid : 0;
}

// An ordinary user cannot open the lock, but everybody may read the page.
std::optional<pid_t> other_by_page(const char* page) {
    const pid_t pid = daemon_of_page(page);
    return pid != 0 ? std::optional(pid) : std::nullopt;
}

}  // namespace

std::optional<pid_t> claim_host(const char* path, const char* page) {
    // For nobody else: a reader could lock it, too, and no daemon would start.
    OwnedFd fd(open(path, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    const auto deadline = steady_clock::now() + LONGEST_END;
    for (;; std::this_thread::sleep_for(LOOK_AGAIN)) {
        const Claim claim = try_lock(fd.get());
        if (claim == Claim::OURS) {
            held = fd.release();
            return std::nullopt;
        }
        const auto other = claim == Claim::TAKEN ? holder_of(fd.get()) : other_by_page(page);
        if (!other || steady_clock::now() >= deadline) {
            return other;
        }
    }
}

bool holds_host() {
    return held >= 0;
}

void release_host() {
    if (const int fd = std::exchange(held, -1); fd >= 0) {
        (void)close(fd);
    }
}
