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

}  // namespace
