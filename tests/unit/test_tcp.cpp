#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/ioctl.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <vector>

#include "support.h"
#include "tcp.h"

namespace {

constexpr std::size_t SIZE = 1164;
const std::uint32_t LOOPBACK = htonl(INADDR_LOOPBACK);

// A listener and one connection to it, both ends made by the helpers.
struct Connection {
    OwnedFd listener{TcpBuildListen("192.0.2.1", 0, 20)};  // the address does not matter
    OwnedFd client{TcpConnectSv(LOOPBACK, TcpLocalPort(listener.get()), 20)};
    OwnedFd server{TcpSvAccept(listener.get(), 20)};
};

TEST(Tcp, NoDescriptorOutlivesAnExec) {
    const Connection connection;
    for (const OwnedFd* fd : {&connection.listener, &connection.client, &connection.server}) {
        EXPECT_EQ(fcntl(fd->get(), F_GETFD), FD_CLOEXEC);
    }
}

std::atomic<int> signals = 0;

TEST(Tcp, AMessageInPiecesIsReceivedWholeThroughSignals) {
    Connection connection;
    struct sigaction action {};
    action.sa_handler = [](int) {
        ++signals;
    };
    ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
    std::string sent(SIZE, 's');
    std::string received(SIZE, '-');
    int result = 0;
    std::thread receiver(
        [&] { result = TcpRecvAll(connection.server.get(), received.data(), SIZE); });
    for (const std::size_t from : {0U, 600U}) {
        sent[from] = 'x';
        const std::size_t length = from == 0 ? 600 : SIZE - 600;
        EXPECT_EQ(TcpSendAll(connection.client.get(), sent.data() + from, length), 0);
        // When nothing of the piece waits, the receiver waits for the next one.
        EXPECT_TRUE(eventually([&] {
            int waiting = -1;
            return ioctl(connection.server.get(), FIONREAD, &waiting) == 0 && waiting == 0;
        }));
        if (from == 0) {
            pthread_kill(receiver.native_handle(), SIGUSR1);
            EXPECT_TRUE(eventually([&] { return signals > 0; }));
        }
    }
    receiver.join();
    EXPECT_EQ(result, static_cast<int>(SIZE));
    EXPECT_EQ(received, sent);
}

TEST(Tcp, AShortMessageIsNone) {
    Connection connection;
    const OwnedFd elsewhere(dup(connection.client.get()));  // the close ends it all the same
    std::string buffer(SIZE, 's');
    EXPECT_EQ(TcpSendAll(connection.client.get(), buffer.data(), 600), 0);
    EXPECT_EQ(TcpClose(connection.client.release()), 0);
    EXPECT_EQ(TcpRecvAll(connection.server.get(), buffer.data(), SIZE), -1);
    EXPECT_EQ(TcpRecvExact(connection.server.get(), buffer.data(), SIZE), -1);
}

TEST(Tcp, AConnectionThatWasNotMadeFailsAtEverySendAtOnce) {
    const OwnedFd listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in local{};
    local.sin_family = AF_INET;
    ASSERT_EQ(bind(listener.get(), reinterpret_cast<const sockaddr*>(&local), sizeof local), 0);
    const std::uint16_t port = TcpLocalPort(listener.get());
    std::vector<OwnedFd> waiting;
    for (const char* how : {"refused", "timed out"}) {
        OwnedFd fd(TcpConnectSv(LOOPBACK, port, 1));
        ASSERT_TRUE(fd.valid()) << how;
        for (int attempt = 0; attempt < 3; ++attempt) {
            errno = 0;
            EXPECT_EQ(TcpSendAll(fd.get(), "message", 7), -1) << how;  // and no SIGPIPE
            EXPECT_EQ(errno, EPIPE) << how;  // another one would say that it has waited
        }
        // A master makes one of these for each beat of a slave that it cannot reach.
        const int number = fd.release();
        EXPECT_EQ(TcpClose(number), 0) << how;
        EXPECT_EQ(fcntl(number, F_GETFD), -1) << how;
        ASSERT_EQ(listen(listener.get(), 0), 0);  // takes one connection, and no answer after it
        waiting.emplace_back(TcpConnectSv(LOOPBACK, port, 1));
    }
}

TEST(Tcp, AShortSendEndsTheConnection) {
    Connection connection;
    ASSERT_EQ(TcpSetBufferSize(connection.client.get(), 4096), 0);
    TcpSetTimeout(connection.client.get(), 0, 50000);
    const std::string much(16U << 20U, 'm');
    EXPECT_EQ(TcpSendAll(connection.client.get(), much.data(), much.size()), -1);
    EXPECT_EQ(errno, EAGAIN);
    // The reader finds the end after what was sent, and free space does not revive the sender.
    std::string buffer(1U << 16U, '-');
    ssize_t got = 0;
    while ((got = recv(connection.server.get(), buffer.data(), buffer.size(), 0)) > 0) {}
    EXPECT_EQ(got, 0);
    EXPECT_EQ(TcpSendAll(connection.client.get(), "next", 4), -1);
}

TEST(Tcp, AReceiverThatIsTooSlowAsAWholeIsGivenUp) {
    Connection connection;
    ASSERT_EQ(TcpSetBufferSize(connection.client.get(), 4096), 0);
    ASSERT_EQ(TcpSetBufferSize(connection.server.get(), 4096), 0);
    std::atomic<bool> given_up = false;
    std::thread reader([&] {  // takes a little again and again, so that no single send fails
        std::string buffer(2048, '-');
        const auto end = std::chrono::steady_clock::now() + 30s;
        while (!given_up && std::chrono::steady_clock::now() < end) {
            (void)!recv(connection.server.get(), buffer.data(), buffer.size(), 0);
            std::this_thread::sleep_for(5ms);
        }
        (void)TcpClose(connection.server.release());
    });
    const std::string much(64U << 20U, 'm');
    TcpPatience patience{300ms, 1ms};
    EXPECT_EQ(TcpSendAllWithin(connection.client.get(), much.data(), much.size(), patience), -1);
    EXPECT_EQ(errno, EAGAIN);
    given_up = true;
    EXPECT_EQ(TcpSendAllWithin(connection.client.get(), "next", 4, patience), -1);
    reader.join();
}

TEST(Tcp, EachMebibyteLengthensThePatience) {
    Connection connection;
    const std::string much(4U << 20U, 'm');
    std::thread reader([&] {
        std::string all(much.size(), '-');
        std::this_thread::sleep_for(200ms);
        EXPECT_EQ(TcpRecvExact(connection.server.get(), all.data(), all.size()), 0);
    });
    TcpPatience patience{0ms, 10s};
    EXPECT_EQ(TcpSendAllWithin(connection.client.get(), much.data(), much.size(), patience), 0);
    reader.join();
}

TEST(Tcp, ARestartGetsThePortOfConnectionsThatLiveOnAndSharesItWithNobody) {
    Connection connection;
    const std::uint16_t port = TcpLocalPort(connection.listener.get());
    connection.listener.reset();
    for (const char* what : {"open", "closed by us"}) {
        errno = 0;
        OwnedFd restarted(TcpBuildListen("127.0.0.1", port, 20));
        EXPECT_EQ(errno, 0) << what;
        EXPECT_EQ(TcpLocalPort(restarted.get()), port) << what;
        // A port in use is not shared: the second gets another one, as its error tells.
        const OwnedFd other(TcpBuildListen("127.0.0.1", port, 20));
        EXPECT_EQ(errno, EADDRINUSE) << what;
        EXPECT_NE(TcpLocalPort(other.get()), port) << what;
        EXPECT_NE(TcpLocalPort(other.get()), 0) << what;
        restarted.reset();
        TcpClose(connection.server.release());
    }
}

}  // namespace
