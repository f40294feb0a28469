#include <atomic>

#include "keys.h"
#include "stamps.h"
#include "support.h"

namespace {

const std::string S127(127, 's');
const std::string S128(128, 's');

TEST(Stamps, TravelAsBothSidesCompareThem) {
    EXPECT_EQ(join_stamps({"20261116", ""}), "20261116#");
    EXPECT_EQ(comparable_stamp(S128 + "x"), S127);
    const struct {
        std::string value, config, client;
        bool has_separator;
    } rows[] = {
        {"a#b#c", "a", "b#c", true},  // at the first separator
        {"#", "", "", true},         {"a", "a", "", false},
        {S128, S127, "", false},     {S128 + "#" + S128, S127, S127, true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.value);
        const auto& [stamps, has_separator] = split_stamps(row.value);
        EXPECT_EQ(stamps, (StampPair{row.config, row.client}));
        EXPECT_EQ(has_separator, row.has_separator);
    }
}

TEST(Stamps, TheNextIsAnotherThanAllBefore) {
    EXPECT_EQ(next_stamp("null", "20261116035226"), "20261116035226");
    EXPECT_EQ(next_stamp("20261116035225", "20261116035226"), "20261116035226");
    EXPECT_EQ(next_stamp("20261116035226", "20261116035226"), "20261116035227");
    // Raised twice within a second, or the clock was set back: a slave may have what lies between.
    EXPECT_EQ(next_stamp("20261116035259", "20261116035226"), "20261116035260");
    EXPECT_EQ(next_stamp("99999999999999", "20261116035226"), "20261116035226");
}

class StampsOfAHost : public WithFiles {
protected:
    static void put_pair(const std::string& stamp) {
        const auto store = db_open(CONFIG_DB);
        ASSERT_EQ(store->put(KEY_CONFIG_VERSION, stamp), 0);
        ASSERT_EQ(store->put(KEY_CLIENT_VERSION, stamp), 0);
    }
};

TEST_F(StampsOfAHost, AreReadAsTheyAreCompared) {
    EXPECT_EQ(read_stamps("none"), (StampPair{"none", "none"}));
    put(CONFIG_DB, KEY_CONFIG_VERSION, "");
    put(CONFIG_DB, KEY_CLIENT_VERSION, S128);
    EXPECT_EQ(read_stamps("none"), (StampPair{"", S127}));
    write_file(CONFIG_DB, std::string(8192, 'x'));
    EXPECT_EQ(read_stamps("none"), std::nullopt);
}

// One stamp of before a change and one of after it would start a needless push, or hide a due one.
TEST_F(StampsOfAHost, BelongTogetherHoweverManyThreadsRead) {
    put_pair("1000");
    std::atomic<bool> written = false;
    const auto read = [&written] {
        std::string last;
        while (!written) {
            const auto stamps = current_stamps();
            ASSERT_TRUE(stamps);
            ASSERT_EQ(stamps->config, stamps->client);
            ASSERT_GE(stamps->config, last);
            last = stamps->config;
        }
    };
    std::thread first(read);
    std::thread second(read);
    for (int stamp = 1001; stamp < 1300; ++stamp) {
        put_pair(std::to_string(stamp));
    }
    written = true;
    first.join();
    second.join();
    write_file(CONFIG_DB, std::string(8192, 'x'));
    EXPECT_EQ(current_stamps(), (StampPair{"1299", "1299"}));
    std::filesystem::remove(CONFIG_DB);
    EXPECT_EQ(current_stamps(), (StampPair{"null", "null"}));
}

}  // namespace
