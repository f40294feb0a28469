// Whoever is not one of the configured servers is answered apart from them, so that an address that
// cannot be reached never delays a server's answer.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>

#include "inbox.h"

// Which addresses are those of servers: the items of `server_list` in config.db, read anew at most
// once a second. While config.db cannot be read, the last list that could be. One thread at a time.
class ServerList {
public:
    bool has(const sockaddr_in& sender);

private:
    std::string list_;
    std::chrono::steady_clock::time_point read_at_{};
};

// The datagrams of strangers that wait for their answers.
class Strangers {
public:
    static constexpr std::size_t MOST = 64;

    // Takes a datagram. When too many wait it is dropped, which is logged as STRANGERS_DROPPED, at
    // most once a second. One thread at a time.
    void take(const Datagram& datagram);

    Inbox& inbox() { return inbox_; }

private:
    Inbox inbox_{MOST};
    std::size_t dropped_ = 0;  // since the last line about it
    std::chrono::steady_clock::time_point reported_at_{};
};
