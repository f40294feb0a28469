#include <fcntl.h>
#include <sys/file.h>

#include "ctl/store_files.h"
#include "support.h"

namespace {

TEST(MessageFault, FollowsTheFieldsOfTheMessage) {
    const auto fits = [](Replication replication, std::size_t key, std::size_t value) {
        return message_fault(replication, std::string(key, 'k'), std::string(value, 'v')).empty();
    };
    EXPECT_TRUE(fits(Replication::PUSHED, 127, 1023));
    EXPECT_FALSE(fits(Replication::PUSHED, 128, 1));
    EXPECT_FALSE(fits(Replication::PUSHED, 1, 1024));
    EXPECT_TRUE(fits(Replication::NONE, 128, 1024));
    EXPECT_TRUE(fits(Replication::STAMP, 1, 127));
    EXPECT_FALSE(fits(Replication::STAMP, 1, 128));
    EXPECT_TRUE(fits(Replication::DSVER, 1, 32));
    EXPECT_FALSE(fits(Replication::DSVER, 1, 33));
    EXPECT_NE(message_fault(Replication::STAMP, "config_db_version", "a#b"), "");
    EXPECT_NE(message_fault(Replication::PUSHED, "dbver", "1"), "");
}

// A tool that looks on finds no file where there is none, and leaves it at that.
TEST(StoreUse, InspectingChangesNothing) {
    const std::string path = "/etc/quoradmind/inspected.db";
    std::filesystem::remove(path);
    set_store_use(StoreUse::INSPECT);
    EXPECT_EQ(stored(path.c_str(), "key"), "(absent)");
    EXPECT_FALSE(db_store(path.c_str(), "key", "value"));
    EXPECT_FALSE(std::filesystem::exists(path));
    set_store_use(StoreUse::EDIT);
    EXPECT_TRUE(db_store(path.c_str(), "key", "value"));
    set_store_use(StoreUse::INSPECT);
    EXPECT_EQ(stored(path.c_str(), "key"), "value");
    EXPECT_FALSE(db_store(path.c_str(), "key", "other"));
    EXPECT_EQ(stored(path.c_str(), "key"), "value");
    set_store_use(StoreUse::SERVE);
}

// A daemon goes on without a lock for its heartbeat's sake; a tool must not write then.
TEST(StoreUse, EditingNeedsTheLock) {
    const std::string path = "/etc/quoradmind/edited.db";
    ASSERT_TRUE(db_store(path.c_str(), "key", "value"));
    const OwnedFd other(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(flock(other.get(), LOCK_EX), 0);
    set_store_use(StoreUse::EDIT);
    EXPECT_FALSE(db_store(path.c_str(), "key", "by hand"));
    set_store_use(StoreUse::SERVE);
    EXPECT_TRUE(db_store(path.c_str(), "key", "by the daemon"));
    EXPECT_EQ(stored(path.c_str(), "key"), "by the daemon");
}

}  // namespace
