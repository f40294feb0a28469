#include "PK_Socket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "log.h"
#include "tcp.h"

namespace {

constexpr const char* ORIGIN = "src/PK_Socket";

std::size_t wanted(std::int32_t length) {
    return static_cast<std::size_t>(std::max(length, 0));
}

}  // namespace

int PK_Socket::CreateSocket(std::uint32_t nSocketType) {
    (void)Close();
    int family = AF_INET;
    int type = SOCK_STREAM;
    if (nSocketType == SOCKET_UDP) {
        type = SOCK_DGRAM;
    } else if (nSocketType == SOCKET_LOCAL) {
        family = AF_UNIX;
    } else if (nSocketType != SOCKET_TCP) {
        log_message(msg::UNKNOWN_SOCKET_KIND, static_cast<int>(nSocketType), ORIGIN, "CreateSocket",
                    __LINE__);
        return -1;
    }
    fd_.reset(socket(family, type | SOCK_CLOEXEC, 0));
    if (!fd_.valid()) {
        const int cause = errno;
        log_message(msg::NO_SERVICE_SOCKET, cause, ORIGIN, "CreateSocket", __LINE__);
        return cause;
    }
    return 0;
}

int PK_Socket::Connect(const char* ip, std::uint16_t port, std::uint32_t timeout) {
    if (const int result = CreateSocket(SOCKET_TCP); result != 0) {
        return result;
    }
    timeout_ = timeout;
    (void)TcpSetTimeout(fd_.get(), static_cast<long>(timeout), 0);
    if (TcpConnectWhole(fd_.get(), inet_addr(ip), port) != 0) {
        const int cause = errno;
        (void)Close();
        return cause;
    }
    (void)TcpSetKeepAlive(fd_.get(), true, KEEPALIVE_IDLE, KEEPALIVE_INTERVAL, KEEPALIVE_COUNT);
    return 0;
}

int PK_Socket::SendAll(const void* buffer, std::int32_t length) {
    if (!fd_.valid()) {
        return -1;
    }
    return static_cast<int>(TcpSendSome(fd_.get(), buffer, wanted(length)));
}

void PK_Socket::SetDeadline(std::optional<std::chrono::steady_clock::time_point> deadline) {
    deadline_ = deadline;
    if (fd_.valid()) {
        (void)TcpSetTimeout(fd_.get(), static_cast<long>(timeout_), 0);
    }
}

// Whether the deadline is ahead; the next receive then waits no longer than until there. False with
// errno ETIMEDOUT.
bool PK_Socket::in_time() {
    if (!deadline_) {
        return true;
    }
    const auto left = std::chrono::duration_cast<std::chrono::microseconds>(
        *deadline_ - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
        errno = ETIMEDOUT;
        return false;
    }
    if (timeout_ == 0 || left < std::chrono::seconds(timeout_)) {
        (void)TcpSetTimeout(fd_.get(), left.count() / 1'000'000, left.count() % 1'000'000);
    }
    return true;
}

int PK_Socket::RecvAll(void* buffer, std::int32_t length) {
    if (!fd_.valid()) {
        return -1;
    }
    auto* bytes = static_cast<char*>(buffer);
    std::size_t received = 0;
    while (received < wanted(length) && in_time()) {
        const ssize_t result = recv(fd_.get(), bytes + received, wanted(length) - received, 0);
        if (result > 0) {
            received += static_cast<std::size_t>(result);
        } else if (result == 0 || (errno != EINTR && (errno != EAGAIN || in_time()))) {
            break;
        }
    }
    return static_cast<int>(received);
}

int PK_Socket::Close() {
    if (fd_.valid()) {
        (void)shutdown(fd_.get(), SHUT_RDWR);
        fd_.reset();
    }
    return 0;
}
