// An owned socket with time-outs, for the request client.
//
// Sends never raise SIGPIPE, a call interrupted by a signal goes on, and the descriptor is
// close-on-exec. One thread at a time.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

#include "owned.h"

// Values for CreateSocket.
inline constexpr std::uint32_t SOCKET_TCP = 0x1000;    // IPv4 stream
inline constexpr std::uint32_t SOCKET_UDP = 0x2000;    // IPv4 datagram
inline constexpr std::uint32_t SOCKET_LOCAL = 0x3000;  // local stream

class PK_Socket {
public:
    PK_Socket() = default;
    PK_Socket(const PK_Socket&) = delete;
    PK_Socket& operator=(const PK_Socket&) = delete;
    ~PK_Socket() { (void)Close(); }

    // Makes a socket, closing one that is held. 0; the errno of a failed socket call; -1 for an
    // unknown type. Both failures are logged.
    int CreateSocket(std::uint32_t nSocketType);

    // Connects to `ip` (dotted text) and `port` (host byte order); `timeout` in seconds bounds that
    // and every later send and receive. 0, CreateSocket's result or the errno of the connect; no
    // socket is held then. Does not log connect failures.
    int Connect(const char* ip, std::uint16_t port, std::uint32_t timeout);

    // Every later receive ends at this moment at the latest, with errno ETIMEDOUT: a peer that
    // sends a byte now and then never meets the time-out. Nothing lifts it.
    void SetDeadline(std::optional<std::chrono::steady_clock::time_point> deadline);

    // Sends or receives the whole buffer: the number of bytes done, short on a time-out, an error
    // or the end of the stream; -1 without a socket. Do not log.
    int SendAll(const void* buffer, std::int32_t length);
    int RecvAll(void* buffer, std::int32_t length);

    // Shuts both directions down and closes; nothing without a socket. Returns 0.
    int Close();

    // The descriptor, -1 when none is held.
    int GetSocket() const { return fd_.get(); }

private:
    bool in_time();

    OwnedFd fd_;
    std::uint32_t timeout_ = 0;  // seconds; 0 for none
    std::optional<std::chrono::steady_clock::time_point> deadline_;
};
