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

int PK_Socket::RecvAll(void* buffer, std::int32_t length) {
    if (!fd_.valid()) {
        return -1;
    }
    return static_cast<int>(TcpRecvPart(fd_.get(), buffer, wanted(length)));
}

int PK_Socket::Close() {
    if (fd_.valid()) {
        (void)shutdown(fd_.get(), SHUT_RDWR);
        fd_.reset();
    }
    return 0;
}
