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

    enum class Received { SOME, NOTHING_YET, END };

    // Takes what has arrived, without waiting. END at the connection's end or on an error, with
    // errno then; otherwise errno is kept. Call next() until it is null before the next call.
    Received receive();

    // The next whole message that is there, valid until the next call of next(); else null. Part of
    // a message waits for its rest.
    const PeerMessage* next();

private:
    static constexpr std::size_t READ_AHEAD = 64;  // messages

    std::size_t held() const { return end_ - begin_; }

    int connection_;
    std::size_t begin_ = 0;  // what is held, in buffer_
    std::size_t end_ = 0;
    PeerMessage message_{};
    std::array<char, READ_AHEAD * sizeof(PeerMessage)> buffer_;
};
