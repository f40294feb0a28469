#include <arpa/inet.h>

#include <cstring>
#include <optional>

#include "keys.h"
#include "own_role.h"
#include "slave/sync_trigger.h"
#include "support.h"

namespace {

using Stamp = std::optional<std::string>;  // nothing: the key is absent
using Kinds = std::vector<std::uint32_t>;

constexpr const char* NO_SEPARATOR = "ERROR :master_client_version == NULL !!\n";

class SyncTrigger : public WithFiles {
protected:
    void SetUp() override {
        WithFiles::SetUp();
        std::strcpy(master_ip, "127.0.0.1");
        master_.sin_family = AF_INET;
        master_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        master_.sin_port = htons(PEER_PORT);
        const timeval patience{30, 0};
        ASSERT_EQ(setsockopt(fd_.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience), 0);
        ASSERT_EQ(bind(fd_.get(), reinterpret_cast<sockaddr*>(&master_), sizeof master_), 0);
    }
    // The kinds that the master has been asked for. A datagram of the test's own marks the end.
    Kinds requested() {
        PeerMessage message = make_heartbeat("", "");
        EXPECT_EQ(sendto(fd_.get(), &message, sizeof message, 0,
                         reinterpret_cast<sockaddr*>(&master_), sizeof master_),
                  static_cast<ssize_t>(sizeof message));
        Kinds kinds;
        while (recv(fd_.get(), &message, sizeof message, 0) == sizeof message &&
               message.type == MSG_DATA_REQUEST) {
            kinds.push_back(message.record.kind);
        }
        EXPECT_EQ(message.type, MSG_HEARTBEAT);
        return kinds;
    }

private:
    OwnedFd fd_{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    sockaddr_in master_{};
};

TEST_F(SyncTrigger, AsksForWhatDiffers) {
    const std::string s127(127, 's');
    const struct {
        const char* name;
        Stamp config, client;  // the slave's own
        std::string answer;
        Kinds kinds;
        bool logs_missing_separator = false;
    } rows[] = {
        {"equal", "v1", "v2", "v1#v2", {}},
        {"never received anything", {}, {}, "v1#v2", {1, 2}},
        {"configuration differs", "v0", "v2", "v1#v2", {1}},
        {"a longer stamp differs", "v1", "v2", "v1#v22", {2}},
        {"master lacks both", {}, {}, "null#null", {1, 2}},
        {"an empty stamp is as good as none", {}, "", "#", {}},
        {"no separator", "v1", "v2", "v1", {2}, true},
        {"no separator, no clients", "v1", {}, "v1", {}, true},
        {"neither separator nor terminator", "v1", {}, std::string(1024, 'z'), {1}, true},
        {"compared up to there", s127 + "xx", s127, s127 + "#" + s127 + "yy", {}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        remove_files();
        for (const auto& [key, stamp] : {std::pair(KEY_CONFIG_VERSION, row.config),
                                         std::pair(KEY_CLIENT_VERSION, row.client)}) {
            if (stamp) {
                put(CONFIG_DB, key, *stamp);
            }
        }
        put(CLIENT_DB, "client1", "value");
        DataRecord answer{};
        row.answer.copy(answer.value, sizeof answer.value);
        data_sync_trigger(-1, answer);
        EXPECT_EQ(requested(), row.kinds);
        const bool emptied = stored(CLIENT_DB, "client1") == "(absent)";
        EXPECT_EQ(emptied, !row.kinds.empty() && row.kinds.back() == DATA_KIND_CLIENT);
        EXPECT_EQ(count_of(logged(), NO_SEPARATOR), row.logs_missing_separator ? 1U : 0U);
        if (row.kinds.empty() && !row.logs_missing_separator) {
            EXPECT_EQ(logged(), "");
        }
    }
}

// Each would be done again at every beat back, without ever getting anywhere.
TEST_F(SyncTrigger, AsksForNothingThatCannotBeStored) {
    put(CLIENT_DB, "client1", "value");
    std::filesystem::create_directories(CLIENT_DB + ".new/in the way"s);
    DataRecord answer{};
    std::strcpy(answer.value, "v1#v2");
    data_sync_trigger(-1, answer);
    EXPECT_EQ(requested(), Kinds{DATA_KIND_CONFIG});
    EXPECT_EQ(count_of(logged(), CLIENT_DB + " cannot be emptied:"s), 1U);

    write_file(CONFIG_DB, std::string(8192, 'x'));
    data_sync_trigger(-1, answer);
    EXPECT_EQ(requested(), Kinds{});
    EXPECT_EQ(count_of(logged(), "ERROR :own version stamps cannot be read"), 1U);
    EXPECT_EQ(stored(CLIENT_DB, "client1"), "value");
}

// The master died in a push and came back with a backup: it pushes nothing that would end it.
TEST_F(SyncTrigger, GoesBackToTheListOfAnEqualStamp) {
    put(CONFIG_DB, KEY_CONFIG_VERSION, "v1");
    put(CONFIG_DB, KEY_CLIENT_VERSION, "v1");
    put(CLIENT_DB, "client1", "value");
    DataRecord answer{};
    for (const char* stamps : {"v1#v2", "v1#v1"}) {
        std::snprintf(answer.value, sizeof answer.value, "%s", stamps);
        data_sync_trigger(-1, answer);
    }
    EXPECT_EQ(requested(), Kinds{DATA_KIND_CLIENT});
    EXPECT_EQ(stored(CLIENT_DB, "client1"), "value");
}

}  // namespace
