#include <arpa/inet.h>
#include <sys/socket.h>

#include "address_list.h"
#include "keys.h"
#include "own_role.h"
#include "slave/connections.h"
#include "slave/master_addresses.h"
#include "support.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint32_t MASTER = 1;
const Moment BEGIN = Moment{} + 1h;

std::unique_ptr<Connection> from(std::uint32_t address, Moment heard = BEGIN) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    return std::make_unique<Connection>(fd, address, address == MASTER, heard);
}

class ConnectionsTest : public WithFiles {
protected:
    Connection* take(std::uint32_t address, Moment heard = BEGIN) {
        auto fresh = from(address, heard);
        Connection* taken = fresh.get();
        given_up = connections.take(std::move(fresh), heard);
        return taken;
    }

    Connections connections;
    std::unique_ptr<Connection> given_up;
};

TEST_F(ConnectionsTest, OfOneAddressAreServedOneAfterTheOther) {
    Connection* first = take(MASTER);
    Connection* stranger = take(7);
    Connection* second = take(MASTER);
    Connection* third = take(MASTER);
    EXPECT_THAT(connections.readable_beside(nullptr), ElementsAre(first, stranger));
    connections.close(*first, BEGIN + 30s);
    EXPECT_THAT(connections.readable_beside(nullptr), ElementsAre(stranger, second));
    EXPECT_EQ(second->silent_since, BEGIN + 30s);  // its silence begins with its turn
    connections.close(*stranger, BEGIN + 31s);
    connections.close_all_but(third, BEGIN + 32s);
    EXPECT_THAT(connections.readable_beside(nullptr), ElementsAre(third));
    connections.close_all_but(nullptr, BEGIN + 33s);
    EXPECT_TRUE(connections.empty());
}

TEST_F(ConnectionsTest, TheMasterComesBeforeStrangers) {
    Connection* stranger = take(7);
    Connection* other = take(8);
    Connection* master = take(MASTER);
    EXPECT_EQ(choose({stranger, other, master}, stranger), master);
    EXPECT_EQ(choose({stranger, other}, other), other);
    EXPECT_EQ(choose({stranger, other}, master), stranger);
    EXPECT_EQ(choose({}, master), nullptr);
    // While its records are not on disk yet, no stranger may have them written out in pieces.
    master->sink = std::make_unique<RecordSink>(true);
    master->sink->apply_data_record(make_data_record(DATA_KIND_CLIENT, "a", "1").record);
    EXPECT_THAT(connections.readable_beside(master), ElementsAre(master));
    master->sink->close_batch();
    EXPECT_THAT(connections.readable_beside(master), ElementsAre(stranger, other, master));
    // But the other way round.
    stranger->sink = std::make_unique<RecordSink>(false);
    stranger->sink->apply_data_record(make_data_record(DATA_KIND_CLIENT, "b", "1").record);
    EXPECT_THAT(connections.readable_beside(stranger), ElementsAre(stranger, other, master));
}

TEST_F(ConnectionsTest, AreBoundedAndTheMostSilentStrangerGivesWay) {
    take(MASTER, BEGIN);
    take(7, BEGIN + 3s);
    Connection* silent = take(8, BEGIN + 1s);
    for (std::uint32_t n = 3; n < Connections::MOST; ++n) {
        take(100 + n, BEGIN + 4s);
        EXPECT_EQ(given_up, nullptr);
    }
    take(MASTER, BEGIN + 5s);
    EXPECT_EQ(given_up.get(), silent);
    for (std::size_t n = 2; n < Connections::MOST; ++n) {
        EXPECT_TRUE(connections.can_take());
        take(MASTER, BEGIN + 6s);
        EXPECT_FALSE(given_up->of_master);
    }
    EXPECT_FALSE(connections.can_take());  // all are the master's
}

TEST_F(ConnectionsTest, TheMasterHasFurtherAddresses) {
    (void)std::snprintf(master_ip, sizeof master_ip, "10.0.0.1");
    EXPECT_TRUE(is_masters(inet_addr("10.0.0.1")));
    EXPECT_FALSE(is_masters(inet_addr("10.1.0.1")));
    EXPECT_THAT(master_paths(), IsEmpty());
    put(CONFIG_DB, KEY_MASTER_PATHS, "10.1.0.1,,10.0.0.1,name,10.2.0.1");
    ASSERT_TRUE(eventually([] { return !master_paths().empty(); }));  // read once a second
    EXPECT_THAT(master_paths(), ElementsAre("10.1.0.1", "10.2.0.1"));
    EXPECT_TRUE(is_masters(inet_addr("10.2.0.1")));
    EXPECT_FALSE(is_masters(inet_addr("10.3.0.1")));
    EXPECT_EQ(masters_end_of(-1), "10.0.0.1");
    master_ip[0] = '\0';
}

TEST_F(ConnectionsTest, AListOfAddressesIsReadOnceASecondAndOutlivesItsFile) {
    put(CONFIG_DB, KEY_SERVER_LIST, "10.0.0.1,10.0.0.12");
    AddressList servers(KEY_SERVER_LIST);
    EXPECT_TRUE(servers.has("10.0.0.1", false));
    EXPECT_TRUE(servers.has("10.0.0.12", false));
    EXPECT_FALSE(servers.has("10.0.0.2", true));
    put(CONFIG_DB, KEY_SERVER_LIST, "10.0.0.2");
    EXPECT_TRUE(eventually([&] { return servers.has("10.0.0.2", false); }));
    write_file(CONFIG_DB, std::string(8192, 'x'));
    AddressList unknown(KEY_SERVER_LIST);
    EXPECT_TRUE(unknown.has("10.0.0.2", true));
    EXPECT_FALSE(unknown.has("10.0.0.2", false));
    const std::size_t before = count_of(logged(), "DB->open");
    EXPECT_TRUE(eventually([&] {  // until it was looked for again
        (void)servers.items();
        return count_of(logged(), "DB->open") > before;
    }));
    EXPECT_TRUE(servers.has("10.0.0.2", false));
    EXPECT_FALSE(servers.has("10.0.0.1", true));
    const std::size_t one_reading = count_of(logged(), "DB->open") - before;
    const auto begin = std::chrono::steady_clock::now();
    for (int n = 0; n < 100; ++n) {
        (void)servers.items();
    }
    const auto seconds = (std::chrono::steady_clock::now() - begin) / 1s;
    EXPECT_LE(count_of(logged(), "DB->open") - before - one_reading,
              one_reading * static_cast<std::size_t>(seconds + 1));
}

}  // namespace
