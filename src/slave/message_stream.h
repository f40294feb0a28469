// The messages of one connection, read ahead: a system call for each would cost more than storing
// it.
#pragma once

#include <array>
#include <cstddef>

#include "peer_message.h"

// Receiver thread only. Logs nothing.
class MessageStream {
public:
    // Reads from `connection`, a TCP descriptor of the caller.
    explicit MessageStream(int connection) : connection_(connection) {}

    // The next whole message, valid until the next call; null with errno at the connection's end,
    // on an error or a time-out. Part of a message at the end is dropped.
    const PeerMessage* next();

    // Whether a whole message is there or comes within `milliseconds`.
    bool more_within(int milliseconds) const;

private:
    static constexpr std::size_t READ_AHEAD = 64;  // messages

    std::size_t held() const { return end_ - begin_; }
    bool receive_more();

    int connection_;
    std::size_t begin_ = 0;  // what is held, in buffer_
    std::size_t end_ = 0;
    PeerMessage message_{};
    std::array<char, READ_AHEAD * sizeof(PeerMessage)> buffer_;
};
