#include <arpa/inet.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>

#include "owned.h"
#include "rare_line.h"
#include "support.h"
#include "syncd/inbox.h"
#include "syncd/reached_senders.h"
#include "tcp.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

sockaddr_in address(const char* dotted, std::uint16_t port = 1) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_addr.s_addr = inet_addr(dotted);
    result.sin_port = port;
    return result;
}

Datagram request(std::uint32_t kind, const char* sender, std::uint16_t port = 1) {
    return {make_data_request(kind), address(sender, port)};
}

// What is left, as the last byte of the sender and the kind, or "beat".
std::vector<std::string> drained(Backlog& backlog) {
    std::vector<std::string> all;
    while (const auto datagram = backlog.next()) {
        const std::uint32_t sender = ntohl(datagram->sender.sin_addr.s_addr) & 0xFFU;
        const bool beat = datagram->message.type == MSG_HEARTBEAT;
        all.push_back(std::to_string(sender) + " " +
                      (beat ? "beat" : std::to_string(datagram->message.record.kind)));
    }
    return all;
}

TEST(Backlog, DropsTheRepeatsOfARequestAndNothingElse) {
    Backlog backlog(7);
    ASSERT_TRUE(backlog.add(request(2, "10.0.0.2", 5)));  // each request has a port of its own
    ASSERT_TRUE(backlog.add(request(1, "10.0.0.2")));
    ASSERT_TRUE(backlog.add({make_heartbeat("10.0.0.2", "x"), address("10.0.0.2")}));
    ASSERT_TRUE(backlog.add(request(2, "10.0.0.3")));
    ASSERT_TRUE(backlog.add(request(0, "10.0.0.2")));
    ASSERT_TRUE(backlog.add(request(2, "10.0.0.2")));
    ASSERT_TRUE(backlog.add(request(1, "10.0.0.3")));
    EXPECT_FALSE(backlog.add(request(1, "10.0.0.4")));
    EXPECT_EQ(backlog.drop_repeats(request(2, "10.0.0.2", 9)), 2U);
    EXPECT_THAT(drained(backlog), ElementsAre("2 1", "2 beat", "3 2", "2 0", "3 1"));
}

class Answering : public WithFiles {};

TEST_F(Answering, OnlySoManyDatagramsWaitAndTheRestIsCounted) {
    DroppedDatagrams dropped("strangers");
    Inbox inbox(dropped, 64);
    Inbox other(dropped, 0);
    const Datagram beat{make_heartbeat("10.0.0.9", "x"), address("10.0.0.9")};
    for (int n = 0; n < 64; ++n) {
        inbox.put(beat);
    }
    EXPECT_EQ(logged(), "");
    for (int n = 0; n < 100; ++n) {
        inbox.put(beat);
        other.put(beat);
    }
    EXPECT_EQ(count_of(logged(), ", 1 dropped"), 1U);  // the line of both
    EXPECT_THAT(logged(), HasSubstr("too many datagrams of strangers, 1 dropped, the last one of "
                                    "10.0.0.9\n"));
    EXPECT_LT(count_of(logged(), "dropped"), 50U);  // and not a line for each
    for (int n = 0; n < 64; ++n) {
        EXPECT_TRUE(inbox.next().has_value());
    }
    inbox.close(EBADF);
    EXPECT_FALSE(inbox.next().has_value());
    EXPECT_EQ(errno, EBADF);
}

TEST(ReachedSenders, ForgetTheOneThatWasReachedLongestAgo) {
    ReachedSenders senders;
    for (const in_addr_t address : {1, 2, 3, 1}) {
        senders.note(address, true);
    }
    for (in_addr_t address = 4; address <= 65; ++address) {
        senders.note(address, true);
    }
    EXPECT_TRUE(senders.has(1) && senders.has(65));
    EXPECT_FALSE(senders.has(2));
    senders.note(65, false);
    EXPECT_FALSE(senders.has(65));
}

TEST(RareLine, IsDueOnceASecondAndCountsAll) {
    RareLine line;
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(line.count(begin), 1U);
    EXPECT_EQ(line.count(begin), 0U);
    EXPECT_EQ(line.count(begin + 999ms), 0U);
    EXPECT_EQ(line.count(begin + 1s), 3U);
    EXPECT_EQ(line.count(begin + 3s), 1U);
}

class Ends {
public:
    Ends() {
        std::array<int, 2> ends{};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
        master.reset(ends[0]);
        slave.reset(ends[1]);
    }
    OwnedFd master;
    OwnedFd slave;
};

// What is left of a slave's datagrams around the end of a push of the clients, by kind of set.
std::vector<std::uint32_t> left_after_a_push() {
    Ends ends;
    DroppedDatagrams dropped("servers");
    Inbox inbox(dropped, 3, 1h);
    const Datagram pushed = request(2, "10.0.0.2");
    inbox.put(pushed);
    std::thread answerer([&] { inbox.end_push(ends.master.get(), pushed); });
    char byte = 0;
    EXPECT_EQ(recv(ends.slave.get(), &byte, 1, 0), 0);  // the end of the push
    inbox.put(pushed);                                  // caused by an answer from before it
    inbox.put(request(1, "10.0.0.2"));
    inbox.put(pushed);
    ends.slave.reset();
    inbox.put(pushed);  // whoever has read it to its end asks anew
    answerer.join();
    inbox.close(0);
    std::vector<std::uint32_t> left;
    while (const auto datagram = inbox.next()) {
        left.push_back(datagram->message.record.kind);
    }
    return left;
}

TEST_F(Answering, RepeatsAreDroppedUntilThePushWasRead) {
    for (int round = 1; round <= 50; ++round) {  // the answerer may wake up too early to tell
        ASSERT_THAT(left_after_a_push(), ElementsAre(1U, 2U)) << round;
    }
    EXPECT_EQ(count_of(logged(), "3 requests for data set 2 dropped, 10.0.0.2 has just been"), 50U);
}

TEST_F(Answering, AReceiverThatNeverEndsIsNotWaitedFor) {
    const Ends ends;
    ASSERT_EQ(TcpSendAll(ends.slave.get(), "junk", 4), 0);
    DroppedDatagrams dropped("servers");
    Inbox inbox(dropped, 1, 20ms);
    inbox.end_push(ends.master.get(), request(2, "10.0.0.2"));
    EXPECT_FALSE(TcpPeerHasEnded(ends.master.get()));
    inbox.put(request(2, "10.0.0.2"));
    EXPECT_TRUE(inbox.next().has_value());
    EXPECT_EQ(logged(), "");
}

}  // namespace
