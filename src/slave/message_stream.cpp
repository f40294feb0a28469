#include "message_stream.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace {

// From how many waiting bytes on the connection counts as readable.
void set_readable_at(int connection, int bytes) {
    (void)setsockopt(connection, SOL_SOCKET, SO_RCVLOWAT, &bytes, sizeof bytes);
}

}  // namespace

const PeerMessage* MessageStream::next() {
    while (held() < sizeof message_) {
        if (!receive_more()) {
            return nullptr;
        }
    }
    std::memcpy(&message_, buffer_.data() + begin_, sizeof message_);
    begin_ += sizeof message_;
    return &message_;
}

bool MessageStream::receive_more() {
    std::memmove(buffer_.data(), buffer_.data() + begin_, held());
    end_ = held();
    begin_ = 0;
    ssize_t got = 0;
    do {
        got = recv(connection_, buffer_.data() + end_, buffer_.size() - end_, 0);
    } while (got < 0 && errno == EINTR);
    end_ += got > 0 ? static_cast<std::size_t>(got) : 0;
    return got > 0;
}

bool MessageStream::more_within(int milliseconds) const {
    if (held() >= sizeof message_) {
        return true;
    }
    pollfd wait{connection_, POLLIN, 0};
    // Half a message is none, and must not lengthen the receive's own time-out afterwards.
    set_readable_at(connection_, static_cast<int>(sizeof message_ - held()));
    const bool more = poll(&wait, 1, milliseconds) > 0;
    set_readable_at(connection_, 1);
    return more;
}
