#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>
#include <memory>

#include "PK_Socket.h"
#include "support.h"
#include "tcp.h"

namespace {

TEST(Socket, KindsAreMadeAndReplaceEachOther) {
    PK_Socket socket;
    char byte = 0;
    const auto option = [&socket](int level, int name) {
        int value = -1;
        socklen_t length = sizeof value;
        EXPECT_EQ(getsockopt(socket.GetSocket(), level, name, &value, &length), 0);
        return value;
    };
    const OwnedFd listener(TcpBuildListen("", 0, 20));
    ASSERT_EQ(socket.Connect("127.0.0.1", TcpLocalPort(listener.get()), 7), 0);
    EXPECT_EQ(option(SOL_SOCKET, SO_KEEPALIVE), 1);
    EXPECT_EQ(option(IPPROTO_TCP, TCP_KEEPIDLE), 3);
    EXPECT_EQ(option(SOL_SOCKET, SO_RCVTIMEO), 7);
    EXPECT_EQ(fcntl(socket.GetSocket(), F_GETFD), FD_CLOEXEC);

    const OwnedFd server(TcpSvAccept(listener.get(), 20));
    for (const auto& [number, domain, type] : {std::tuple(SOCKET_UDP, AF_INET, SOCK_DGRAM),
                                               std::tuple(SOCKET_LOCAL, AF_UNIX, SOCK_STREAM),
                                               std::tuple(SOCKET_TCP, AF_INET, SOCK_STREAM)}) {
        EXPECT_EQ(socket.CreateSocket(number), 0);
        EXPECT_EQ(option(SOL_SOCKET, SO_DOMAIN), domain);
        EXPECT_EQ(option(SOL_SOCKET, SO_TYPE), type);
        EXPECT_EQ(recv(server.get(), &byte, 1, 0), 0);  // the connection is gone
    }
    EXPECT_EQ(socket.CreateSocket(0x4000), -1);
    EXPECT_EQ(socket.GetSocket(), -1);
    EXPECT_EQ(socket.Close(), 0);
}

TEST(Socket, CountsWhatItCouldTransfer) {
    auto listener = std::make_unique<OwnedFd>(TcpBuildListen("", 0, 20));
    const std::uint16_t port = TcpLocalPort(listener->get());
    PK_Socket socket;
    ASSERT_EQ(socket.Connect("127.0.0.1", port, 20), 0);
    OwnedFd server(TcpSvAccept(listener->get(), 20));
    EXPECT_EQ(TcpSendAll(server.get(), "four", 4), 0);
    server.reset();
    std::string buffer(10, '-');
    EXPECT_EQ(socket.RecvAll(buffer.data(), 10), 4);
    EXPECT_EQ(buffer, "four------");
    // The first send may still be taken; the reset that it causes fails a later one, quietly.
    EXPECT_TRUE(eventually([&] { return socket.SendAll("late", 4) == 0; }));
    listener.reset();
    EXPECT_EQ(socket.Connect("127.0.0.1", port, 20), ECONNREFUSED);
    EXPECT_EQ(socket.GetSocket(), -1);
}

}  // namespace
