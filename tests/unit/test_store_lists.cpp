#include <optional>

#include "keys.h"
#include "support.h"
#include "text.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using List = std::optional<std::string>;  // nothing: the key is absent

class Lists : public WithFiles {};

const List ABSENT;
const List NEARLY_FULL = "x," + std::string(4090, 'y');  // 4092 characters

TEST(Split, DropsEmptyPieces) {
    EXPECT_THAT(split(",a,,b,c,", ','), ElementsAre("a", "b", "c"));
    EXPECT_THAT(split(",,", ','), IsEmpty());
}

TEST_F(Lists, ChangeByWholeItems) {
    enum Operation { ADD, REMOVE, INDEX };
    // NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding): a row reads as what happens
    const struct {
        Operation operation;
        List before;
        const char* item;
        List after;
        int index = -1;
    } rows[] = {
        {ADD, "x,y", "y", "x,y"},
        {ADD, "x,y", "z", "x,y,z"},
        {ADD, ABSENT, "z", "z"},
        {ADD, NEARLY_FULL, "zz", *NEARLY_FULL + ",zz"},
        {ADD, NEARLY_FULL, "zzz", NEARLY_FULL},
        {REMOVE, "x,y,z", "y", "x,z"},
        {REMOVE, *NEARLY_FULL + ",zz,zz,aa", "zz", *NEARLY_FULL + ",aa"},
        {REMOVE, "x,yy", "y", "x,yy"},
        {REMOVE, "x", "x", ABSENT},
        {REMOVE, "y,y", "y", ""},
        {REMOVE, ABSENT, "y", ABSENT},
        {INDEX, "x,y", "y", "x,y", 2},
        {INDEX, "x,yy", "y", "x,yy"},
        {INDEX, ABSENT, "y", "y"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE("row " + std::to_string(&row - rows));
        WithFiles::SetUp();
        if (row.before) {
            put(CONFIG_DB, "list", *row.before);
        }
        if (row.operation == INDEX) {
            EXPECT_EQ(db_list_index(CONFIG_DB, "list", row.item), row.index);
        } else {
            (row.operation == ADD ? db_list_add : db_list_remove)(CONFIG_DB, "list", row.item);
        }
        EXPECT_EQ(stored(CONFIG_DB, "list"), row.after.value_or("(absent)"));
    }
}

// Whatever keeps a reader from the file for a while: the list is never taken for an empty one.
TEST_F(Lists, LoseNothingToOtherChanges) {
    std::vector<std::thread> adders;
    for (int adder = 0; adder < 4; ++adder) {
        adders.emplace_back([adder] {
            for (int n = 0; n < 25; ++n) {
                db_list_add(CONFIG_DB, "list", std::to_string(adder * 25 + n).c_str());
            }
        });
    }
    for (std::thread& adder : adders) {
        adder.join();
    }
    EXPECT_EQ(split(stored(CONFIG_DB, "list"), ',').size(), 100U);
}

TEST_F(Lists, ANumberedValueTakesTheLargestNumber) {
    put(CONFIG_DB, "a", "7#one");
    put(CONFIG_DB, "b", "12#two");
    db_next_numbered(CONFIG_DB, "new", "0#text#more");
    EXPECT_EQ(stored(CONFIG_DB, "new"), "12#text#more");
    db_next_numbered(CONFIG_DB, "new", "0#other");
    EXPECT_EQ(stored(CONFIG_DB, "new"), "12#text#more");
}

TEST_F(Lists, ADumpLogsEveryRecordCut) {
    put(CONFIG_DB, "a", "1");
    put(CONFIG_DB, std::string(200, 'k'), std::string(2000, 'v'));
    db_dump(CONFIG_DB);
    EXPECT_EQ(count_of(logged(), " INFO :a = 1\n"), 1U);
    const std::string cut = " INFO :" + std::string(127, 'k') + " = " + std::string(1023, 'v');
    EXPECT_EQ(count_of(logged(), cut + "\n"), 1U);
}

}  // namespace
