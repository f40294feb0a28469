#include <arpa/inet.h>

#include <cerrno>

#include "keys.h"
#include "support.h"
#include "syncd/strangers.h"

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

TEST_F(Answering, TheListSaysWhoIsAServer) {
    put(CONFIG_DB, KEY_SERVER_LIST, "10.0.0.1,10.0.0.12");
    ServerList servers;
    EXPECT_TRUE(servers.has(address("10.0.0.1")));
    EXPECT_TRUE(servers.has(address("10.0.0.12")));
    EXPECT_FALSE(servers.has(address("10.0.0.2")));
    put(CONFIG_DB, KEY_SERVER_LIST, "10.0.0.2");
    EXPECT_TRUE(eventually([&] { return servers.has(address("10.0.0.2")); }));
    write_file(CONFIG_DB, std::string(8192, 'x'));
    ServerList blind;
    EXPECT_FALSE(blind.has(address("10.0.0.2")));
    const auto end = std::chrono::steady_clock::now() + 1500ms;  // beyond the next reading
    EXPECT_TRUE(eventually([&] {
        return !servers.has(address("10.0.0.2")) || std::chrono::steady_clock::now() > end;
    }));
    EXPECT_TRUE(servers.has(address("10.0.0.2")));  // the last list that could be read
}

TEST_F(Answering, StrangersWaitInABoundedQueueAndTheRestIsCounted) {
    Strangers strangers;
    const Datagram beat{make_heartbeat("10.0.0.9", "x"), address("10.0.0.9")};
    for (std::size_t n = 0; n < Strangers::MOST / 2; ++n) {
        strangers.take(request(2, "10.0.0.9"));
        strangers.take(beat);
    }
    EXPECT_EQ(logged(), "");
    for (int n = 0; n < 100; ++n) {
        strangers.take(beat);
    }
    EXPECT_THAT(logged(), HasSubstr("too many datagrams of strangers, 1 dropped, the last one of "
                                    "10.0.0.9\n"));
    EXPECT_LT(count_of(logged(), "dropped"), 50U);  // and not a line for each
    drop_repeats(strangers.inbox(), request(2, "10.0.0.9"));
    EXPECT_THAT(logged(), HasSubstr("32 requests for data set 2 dropped, 10.0.0.9 has just been"));
    for (std::size_t n = 0; n < Strangers::MOST / 2; ++n) {
        EXPECT_EQ(strangers.inbox().next()->message.type, MSG_HEARTBEAT);
    }
    strangers.inbox().close(EBADF);
    EXPECT_FALSE(strangers.inbox().next().has_value());
    EXPECT_EQ(errno, EBADF);
}

TEST(Inbox, WakesTheOneThatAnswers) {
    Inbox inbox(2);
    std::thread answerer([&inbox] {
        EXPECT_TRUE(inbox.next().has_value());
        EXPECT_FALSE(inbox.next().has_value());
    });
    EXPECT_TRUE(inbox.put(request(1, "10.0.0.2")));
    inbox.close(0);
    answerer.join();
}

}  // namespace
