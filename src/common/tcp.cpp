#include "tcp.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>

#include "owned.h"

namespace {

constexpr int BACKLOG = 1024;

void set_option(int fd, int level, int name, int value) {
    (void)setsockopt(fd, level, name, &value, sizeof value);
}

sockaddr_in ipv4(std::uint32_t address, std::uint16_t port) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_addr.s_addr = address;
    result.sin_port = htons(port);
    return result;
}

using std::chrono::steady_clock;

// Waits until `fd` takes bytes again, as long as `patience` allows for `length` bytes more. False
// with EAGAIN when it allows no longer.
bool wait_for_receiver(int fd, std::size_t length, TcpPatience& patience) {
    constexpr std::chrono::milliseconds STEP{1000};
    const double mib = static_cast<double>(patience.sent + length) / (1 << 20);
    const std::chrono::duration<double> allowed = patience.base + mib * patience.per_mib;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(allowed - patience.waited);
    if (left.count() <= 0) {
        errno = EAGAIN;
        return false;
    }
    const auto begin = steady_clock::now();
    pollfd wait{fd, POLLOUT, 0};
    (void)poll(&wait, 1, static_cast<int>(std::min(left, STEP).count()));
    patience.waited += steady_clock::now() - begin;
    return true;
}

// Shuts the connection down, so that the rest of a message is not taken for the beginning of the
// next. -1, errno as before.
int give_up(int fd) {
    const int cause = errno;
    (void)shutdown(fd, SHUT_RDWR);
    errno = cause;
    return -1;
}

// Otherwise every send on a connection that timed out would wait for it once more.
void disable(int fd) {
    (void)shutdown(fd, SHUT_RDWR);
    int pending = 0;
    socklen_t length = sizeof pending;
    (void)getsockopt(fd, SOL_SOCKET, SO_ERROR, &pending, &length);
}

// Whether the peer has ended within so many milliseconds. Bytes of the peer do not matter.
bool ends_within(int fd, std::int64_t milliseconds) {
    pollfd wait{fd, POLLRDHUP, 0};
    return poll(&wait, 1, static_cast<int>(std::max<std::int64_t>(milliseconds, 0))) > 0;
}

}  // namespace

int TcpBuildListen(const char* /*address*/, std::uint16_t port, int /*timeout*/) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    const sockaddr_in local = ipv4(htonl(INADDR_ANY), port);
    const auto* name = reinterpret_cast<const sockaddr*>(&local);
    int bound = bind(fd, name, sizeof local);
    if (bound != 0 && errno == EADDRINUSE) {
        // Connections of a process that has ended may still hold the port; a listener conflicts
        // all the same. The option goes again after the listen: without it, listen itself fails.
        set_option(fd, SOL_SOCKET, SO_REUSEADDR, 1);
        bound = bind(fd, name, sizeof local);
    }
    int cause = bound != 0 ? errno : 0;
    if (listen(fd, BACKLOG) != 0 && cause == 0) {
        cause = errno;
    }
    set_option(fd, SOL_SOCKET, SO_REUSEADDR, 0);
    errno = cause;
    return fd;
}

std::uint16_t TcpLocalPort(int fd) {
    sockaddr_in local{};
    socklen_t length = sizeof local;
    return getsockname(fd, reinterpret_cast<sockaddr*>(&local), &length) == 0
               ? ntohs(local.sin_port)
               : std::uint16_t{0};
}

int TcpSvAccept(int listener, int timeout) {
    int fd = -1;
    do {
        sockaddr_in peer{};
        socklen_t length = sizeof peer;
        fd = accept4(listener, reinterpret_cast<sockaddr*>(&peer), &length, SOCK_CLOEXEC);
    } while (fd < 0 && (errno == EINTR || errno == ECONNABORTED));
    if (fd >= 0) {
        set_option(fd, SOL_SOCKET, SO_REUSEADDR, 1);  // so that a restart gets the port at once
        TcpSetTimeout(fd, timeout, 0);
        TcpSetKeepAlive(fd, true, KEEPALIVE_IDLE, KEEPALIVE_INTERVAL, KEEPALIVE_COUNT);
    }
    return fd;
}

int TcpConnectWhole(int fd, std::uint32_t address, std::uint16_t port) {
    const sockaddr_in peer = ipv4(address, port);
    int result = 0;
    // After an interrupted call the connection goes on being made: ask until it is decided.
    do {
        result = connect(fd, reinterpret_cast<const sockaddr*>(&peer), sizeof peer);
    } while (result != 0 && errno == EINTR);
    return result != 0 && errno == EISCONN ? 0 : result;
}

int TcpConnectSv(std::uint32_t address, std::uint16_t port, int timeout) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    TcpSetTimeout(fd, timeout, 0);  // before connecting: it bounds that, too
    if (TcpConnectWhole(fd, address, port) != 0) {
        disable(fd);
    }
    TcpSetKeepAlive(fd, true, KEEPALIVE_IDLE, KEEPALIVE_INTERVAL, KEEPALIVE_COUNT);
    return fd;
}

int TcpSetTimeout(int fd, long seconds, long microseconds) {
    const timeval interval{seconds, microseconds};
    (void)setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &interval, sizeof interval);
    (void)setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &interval, sizeof interval);
    return 0;
}

int TcpSetKeepAlive(int fd, bool enable, int idle, int interval, int count) {
    set_option(fd, SOL_SOCKET, SO_KEEPALIVE, enable ? 1 : 0);
    set_option(fd, IPPROTO_TCP, TCP_KEEPIDLE, idle);
    set_option(fd, IPPROTO_TCP, TCP_KEEPINTVL, interval);
    set_option(fd, IPPROTO_TCP, TCP_KEEPCNT, count);
    return 1;
}

std::size_t TcpSendSome(int fd, const void* buffer, std::size_t length) {
    const auto* bytes = static_cast<const char*>(buffer);
    std::size_t sent = 0;
    while (sent < length) {
        const ssize_t result = send(fd, bytes + sent, length - sent, MSG_NOSIGNAL);
        if (result > 0) {
            sent += static_cast<std::size_t>(result);
        } else if (result == 0 || errno != EINTR) {
            break;
        }
    }
    return sent;
}

int TcpSendAll(int fd, const void* buffer, std::size_t length) {
    const std::size_t sent = TcpSendSome(fd, buffer, length);
    if (sent == length) {
        return 0;
    }
    return give_up(fd);
}

int TcpSendAllWithin(int fd, const void* buffer, std::size_t length, TcpPatience& patience) {
    const auto* bytes = static_cast<const char*>(buffer);
    while (length > 0) {
        const ssize_t result = send(fd, bytes, length, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (result > 0) {
            bytes += result;
            length -= static_cast<std::size_t>(result);
            patience.sent += static_cast<std::size_t>(result);
        } else if (errno != EINTR &&
                   (errno != EAGAIN || !wait_for_receiver(fd, length, patience))) {
            return give_up(fd);
        }
    }
    return 0;
}

std::size_t TcpRecvPart(int fd, void* buffer, std::size_t length) {
    auto* bytes = static_cast<char*>(buffer);
    std::size_t received = 0;
    while (received < length) {
        const ssize_t result = recv(fd, bytes + received, length - received, 0);
        if (result > 0) {
            received += static_cast<std::size_t>(result);
        } else if (result == 0 || errno != EINTR) {
            break;
        }
    }
    return received;
}

int TcpRecvSome(int fd, void* buffer, std::size_t length) {
    return TcpRecvPart(fd, buffer, length) == length ? static_cast<int>(length) : -1;
}

int TcpRecvAll(int fd, void* buffer, std::size_t length) {
    return TcpRecvSome(fd, buffer, length);
}

int TcpRecvExact(int fd, void* buffer, std::size_t length) {
    return TcpRecvSome(fd, buffer, length) < 0 ? -1 : 0;
}

int TcpClose(int fd) {
    // First the shutdown: the peer sees the end even while another descriptor stays open.
    (void)shutdown(fd, SHUT_RDWR);
    (void)close(fd);
    return 0;
}

bool TcpAwaitEnd(int fd, std::chrono::milliseconds longest) {
    const auto end = steady_clock::now() + longest;
    (void)shutdown(fd, SHUT_WR);
    for (auto now = steady_clock::now(); now < end; now = steady_clock::now()) {
        if (ends_within(fd, std::chrono::ceil<std::chrono::milliseconds>(end - now).count())) {
            return true;
        }
    }
    return TcpPeerHasEnded(fd);
}

bool TcpPeerHasEnded(int fd) {
    return ends_within(fd, 0);
}

int TcpSetBufferSize(int fd, int size) {
    set_option(fd, SOL_SOCKET, SO_RCVBUF, size);
    return setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
}

int TcpListenAccept(const char* address, std::uint16_t port, int timeout) {
    const OwnedFd listener(TcpBuildListen(address, port, timeout));
    if (listener.get() < 1) {
        std::puts("err: build listen");
        return -1;
    }
    return TcpSvAccept(listener.get(), timeout);
}
