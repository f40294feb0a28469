#include <sys/ioctl.h>
#include <sys/socket.h>

#include "data_sets.h"
#include "keys.h"
#include "stamps.h"
#include "support.h"
#include "syncd/push.h"
#include "tcp.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class Push : public WithFiles {
protected:
    static void put_both_sets() {
        for (const char* key : {"ha", "dhcpcfg", "master", "default_writeback", "dhcpcfg2"}) {
            put(CONFIG_DB, key, "value of "s + key);
        }
        put(CONFIG_DB, KEY_CONFIG_VERSION, "v1");
        put(CONFIG_DB, KEY_CLIENT_VERSION, "v2");
        for (int n = 0; n < 20; ++n) {
            put(CLIENT_DB, "client" + std::to_string(n), "value");
        }
    }
    static std::pair<OwnedFd, OwnedFd> stream() {
        int fds[2] = {-1, -1};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
        return {OwnedFd(fds[0]), OwnedFd(fds[1])};
    }
    // What goes out for a request, each record as "kind key=value".
    static std::vector<std::string> pushed(std::uint32_t kind) {
        auto [near, far] = stream();  // its buffers hold all that these tests send
        push_master_data(near.get(), {}, make_data_request(kind).record);
        near.reset();
        std::vector<std::string> records;
        PeerMessage message;
        while (TcpRecvExact(far.get(), &message, sizeof message) == 0) {
            EXPECT_EQ(message.type, MSG_DATA);
            records.push_back(std::to_string(message.record.kind) + " " +
                              std::string(field_text(message.record.key)) + "=" +
                              std::string(field_text(message.record.value)));
        }
        return records;
    }
    // What should go out: the records of a file in its own order, then the stamp.
    static std::vector<std::string> expected(std::uint32_t kind, const std::string& stamp) {
        std::vector<std::string> records;
        for (const auto& [key, value] :
             records_of(kind == DATA_KIND_CONFIG ? CONFIG_DB : CLIENT_DB)) {
            if (kind == DATA_KIND_CLIENT || key == "dhcpcfg" || key == "default_writeback") {
                records.push_back(std::to_string(kind) + " " + key + "=" + value);
            }
        }
        records.push_back(std::to_string(kind) + " dbver=" + stamp);
        return records;
    }
};

TEST_F(Push, SendsTheRequestedSetsInTheFilesOwnOrder) {
    put_both_sets();
    const auto config = expected(DATA_KIND_CONFIG, "v1");
    const auto clients = expected(DATA_KIND_CLIENT, "v2");
    ASSERT_EQ(config.size(), 3U);
    ASSERT_EQ(clients.size(), 21U);
    EXPECT_EQ(pushed(DATA_KIND_CONFIG), config);
    EXPECT_EQ(pushed(DATA_KIND_CLIENT), clients);
    auto all = config;
    all.insert(all.end(), clients.begin(), clients.end());
    EXPECT_EQ(pushed(DATA_KIND_ALL), all);
    EXPECT_EQ(count_of(logged(), " send data: ha = value of ha\n"), 2U);  // logged, though not sent
    EXPECT_THAT(pushed(DATA_KIND_DISK), IsEmpty());
}

// Otherwise a record that is changed meanwhile would never arrive.
TEST_F(Push, ClosesASetWithTheStampFromBeforeIt) {
    put_both_sets();
    const int length = 4096;
    {
        const auto store = db_open(CLIENT_DB);
        for (int n = 0; n < 300; ++n) {
            ASSERT_EQ(store->put("more" + std::to_string(n), "value"), 0);
        }
    }
    auto [near, far] = stream();
    ASSERT_EQ(setsockopt(near.get(), SOL_SOCKET, SO_SNDBUF, &length, sizeof length), 0);
    std::thread pusher([&near_end = near] {
        push_master_data(near_end.get(), {}, make_data_request(DATA_KIND_CLIENT).record);
        near_end.reset();
    });
    PeerMessage message;
    EXPECT_EQ(TcpRecvExact(far.get(), &message, sizeof message), 0);
    EXPECT_EQ(count_of(logged(), "send data: "s + message.record.key + " = value\n"), 1U);
    put(CONFIG_DB, KEY_CLIENT_VERSION, "v3");  // the rest of the set waits for its reader
    put(CLIENT_DB, "more0", "changed");
    while (TcpRecvExact(far.get(), &message, sizeof message) == 0) {}
    pusher.join();
    EXPECT_EQ(field_text(message.record.key), DBVER_KEY);
    EXPECT_EQ(field_text(message.record.value), "v2");
}

TEST_F(Push, ClosesASetWithItsStampWhole) {
    EXPECT_THAT(pushed(DATA_KIND_ALL), ElementsAre("1 dbver=null", "2 dbver=null"));
    put(CONFIG_DB, KEY_CONFIG_VERSION, "");
    put(CONFIG_DB, KEY_CLIENT_VERSION, std::string(127, 's'));
    EXPECT_THAT(pushed(DATA_KIND_ALL), ElementsAre("1 dbver=", "2 dbver=" + std::string(127, 's')));
    put(CONFIG_DB, KEY_CLIENT_VERSION, std::string(130, 's'));
    EXPECT_THAT(pushed(DATA_KIND_CLIENT), ElementsAre("2 dbver=" + std::string(127, 's')));
}

TEST_F(Push, SkipsARecordThatIsTooLong) {
    const std::string long_key(128, 'k');
    const std::string long_value(1024, 'v');
    put(CLIENT_DB, std::string(127, 'k'), std::string(1023, 'v'));
    put(CONFIG_DB, "other", long_value);  // would not be sent anyway: no word about it
    const auto records = expected(DATA_KIND_CLIENT, "null");
    put(CLIENT_DB, long_key, "value");
    put(CLIENT_DB, "long", long_value);
    EXPECT_EQ(pushed(DATA_KIND_CLIENT), records);
    (void)pushed(DATA_KIND_CONFIG);
    EXPECT_EQ(count_of(logged(), " ERROR :"), 2U);
    EXPECT_THAT(logged(), HasSubstr("long (key 4 bytes, value 1024 bytes)\n"));
    EXPECT_THAT(logged(), HasSubstr(long_key + " (key 128 bytes, value 5 bytes)\n"));
}

TEST_F(Push, AnswersTheLastStampsWhileTheConfigurationCannotBeRead) {
    put_both_sets();
    const auto clients = expected(DATA_KIND_CLIENT, "v2");
    EXPECT_EQ(current_stamps(), (StampPair{"v1", "v2"}));
    write_file(CONFIG_DB, std::string(8192, 'x'));
    EXPECT_EQ(pushed(DATA_KIND_CLIENT), clients);
    EXPECT_THAT(pushed(DATA_KIND_CONFIG), IsEmpty());
}

TEST_F(Push, SendsTextsUpToTheirTerminator) {
    {
        const auto store = db_open(CONFIG_DB);
        ASSERT_EQ(store->put("dhcpcfg\0"sv, "x=1\0"sv), 0);
        ASSERT_EQ(store->put("config_db_version"sv, "v1\0"sv), 0);
    }
    EXPECT_THAT(pushed(DATA_KIND_CONFIG), ElementsAre("1 dhcpcfg=x=1", "1 dbver=v1"));
    EXPECT_EQ(current_stamps()->config, "v1");
}

TEST_F(Push, ToAPeerThatHasGoneReportsTheClientsStampOnly) {
    put_both_sets();
    write_event_tool();
    const std::size_t clients = 56;  // all that go in one call
    while (records_of(CLIENT_DB).size() < clients) {
        put(CLIENT_DB, "more" + std::to_string(records_of(CLIENT_DB).size()), "value");
    }
    auto [near, far] = stream();
    far.reset();
    push_master_data(near.get(), {}, make_data_request(DATA_KIND_ALL).record);
    EXPECT_EQ(count_of(logged(), "ERROR :send data error:Broken pipe\n"), 3U + clients + 1);
    EXPECT_EQ(events(), "quorsyncd,2,720000,22,0,720003,32,,\n");
}

}  // namespace
