#include "inbox.h"

#include <cerrno>

#include "log.h"
#include "owned.h"
#include "resolve.h"
#include "tcp.h"

void DroppedDatagrams::count(const Datagram& datagram) {
    std::unique_lock hold(lock_);
    const std::size_t dropped = line_.count();
    hold.unlock();
    if (dropped > 0) {
        const OwnedText address(ip_to_string(datagram.sender.sin_addr.s_addr));
        log_message(msg::DATAGRAMS_DROPPED, whose_, dropped, address.get());
    }
}

void Inbox::put(const Datagram& datagram) {
    std::unique_lock hold(lock_);
    const bool kept = keep(datagram);
    hold.unlock();
    if (!kept) {
        dropped_.count(datagram);
    }
}

// False when as many wait as may.
bool Inbox::keep(const Datagram& datagram) {
    // Whoever asks when it has read the push to its end asks anew.
    if (ending_ && is_repeat(datagram, ending_->request) && !TcpPeerHasEnded(ending_->connection)) {
        ++ending_->repeats;
        return true;
    }
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

void Inbox::end_push(int connection, const Datagram& request) {
    std::unique_lock hold(lock_);
    ending_.emplace(Push{connection, request, waiting_.drop_repeats(request)});
    hold.unlock();
    (void)TcpAwaitEnd(connection, longest_end_);
    hold.lock();
    const std::size_t dropped = ending_->repeats;
    ending_.reset();
    hold.unlock();
    if (dropped > 0) {
        const OwnedText address(ip_to_string(request.sender.sin_addr.s_addr));
        log_message(msg::REPEATS_DROPPED, dropped, static_cast<int>(request.message.record.kind),
                    address.get());
    }
}
