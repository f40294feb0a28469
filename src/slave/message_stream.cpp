#include "message_stream.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>

MessageStream::Received MessageStream::receive() {
    std::memmove(buffer_.data(), buffer_.data() + begin_, held());
    end_ = held();
    begin_ = 0;
    const int before = errno;
    const ssize_t got =
        recv(connection_, buffer_.data() + end_, buffer_.size() - end_, MSG_DONTWAIT);
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
        errno = before;
        return Received::NOTHING_YET;
    }
    end_ += got > 0 ? static_cast<std::size_t>(got) : 0;
    return got > 0 ? Received::SOME : Received::END;
}

const PeerMessage* MessageStream::next() {
    if (held() < sizeof message_) {
        return nullptr;
    }
    std::memcpy(&message_, buffer_.data() + begin_, sizeof message_);
    begin_ += sizeof message_;
    return &message_;
}
