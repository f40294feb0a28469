// Datagrams that have been received and wait for their answer, in the order of their arrival.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <deque>
#include <optional>

#include "peer_message.h"

struct Datagram {
    PeerMessage message;
    sockaddr_in sender;
};

// Whether `datagram` asks for the same set as `request`, from the same address. When all of that
// has just been sent, such a request is superfluous: a slave only asks because of an answer, and
// every answer that it has had is older than what was sent.
bool is_repeat(const Datagram& datagram, const Datagram& request);

// One thread at a time. Logs nothing.
class Backlog {
public:
    explicit Backlog(std::size_t most) : most_(most) {}

    bool empty() const { return datagrams_.empty(); }

    // False, and the datagram is not kept, when as many wait as may.
    bool add(const Datagram& datagram);

    // Takes the oldest one out.
    std::optional<Datagram> next();

    // Takes out the repeats of `request`. Returns how many there were.
    std::size_t drop_repeats(const Datagram& request);

private:
    bool full() const { return datagrams_.size() >= most_; }

    std::size_t most_;
    std::deque<Datagram> datagrams_;
};
