#include "inbox.h"

#include <cerrno>

bool Inbox::put(const Datagram& datagram) {
    const std::lock_guard hold(lock_);
    changed_.notify_one();
    return waiting_.add(datagram);
}

void Inbox::close(int cause) {
    const std::lock_guard hold(lock_);
    closed_ = cause;
    changed_.notify_one();
}

std::optional<Datagram> Inbox::next() {
    std::unique_lock hold(lock_);
    changed_.wait(hold, [this] { return closed_ || !waiting_.empty(); });
    const std::optional<Datagram> oldest = waiting_.next();
    errno = oldest ? errno : *closed_;
    return oldest;
}

std::size_t Inbox::drop_repeats(const Datagram& request) {
    const std::lock_guard hold(lock_);
    return waiting_.drop_repeats(request);
}
