#include <optional>

#include "keys.h"
#include "slave/client_list/client_list.h"
#include "support.h"

namespace {

using testing::HasSubstr;
using Records = std::vector<std::pair<std::string, std::string>>;

class TestClock : public ListClock {
public:
    std::chrono::nanoseconds now() override { return time; }
    std::chrono::nanoseconds time = 1h;
};

// A slave with three clients under the stamp v1, told what happens to it.
class ClientListTest : public WithFiles {
protected:
    void SetUp() override {
        WithFiles::SetUp();
        for (const char* key : {"one", "two", "three"}) {
            put(CLIENT_DB, key, "old");
        }
        old_ = records_of(CLIENT_DB);
        put(CONFIG_DB, KEY_CLIENT_VERSION, "v1");
        restart();
    }
    void restart() {
        list_.emplace(list_files(), clock_);
        list_->start_as_slave();
    }
    void start_as_master() {
        list_.emplace(list_files(), clock_);
        list_->start_as_master();
    }
    // So many answers with another stamp, and a request for each.
    void ask(int times) {
        for (int n = 0; n < times; ++n) {
            EXPECT_TRUE(list_->ask());
        }
    }
    // The records of one connection; without a stamp it breaks off.
    void push(const std::vector<std::string>& clients, const char* stamp, bool of_master = true) {
        ClientPush push{.of_master = of_master};
        for (const std::string& client : clients) {
            list_->put(push, client, "new");
        }
        if (stamp != nullptr) {
            (void)list_->close(push, stamp);
        }
        list_->end(push);
    }
    static std::vector<std::string> clients() {
        std::vector<std::string> keys;
        for (const auto& [key, value] : records_of(CLIENT_DB)) {
            keys.push_back(key);
        }
        std::sort(keys.begin(), keys.end());
        return keys;
    }
    static std::string stamp() { return stored(CONFIG_DB, KEY_CLIENT_VERSION); }
    static std::vector<std::string> names() {
        std::vector<std::string> found;
        for (const auto& entry : std::filesystem::directory_iterator("/etc/quoradmind")) {
            found.push_back(entry.path().filename());
        }
        std::sort(found.begin(), found.end());
        return found;
    }

    const std::vector<std::string> only_files_ = {"client.db", "config.db"};
    TestClock clock_;
    std::optional<ClientList> list_;
    Records old_;
};

// --- One set under one stamp ---------------------------------------------------------------------

TEST_F(ClientListTest, PushesStayDueAcrossARestart) {
    for (const char* first : {static_cast<const char*>(nullptr), "v2"}) {
        SCOPED_TRACE(first == nullptr ? "broken off" : "whole");
        ask(2);
        push({"stay", "removed"}, first);
        restart();
        push({"stay"}, "v3");
        EXPECT_EQ(clients(), std::vector{"stay"s});
        EXPECT_EQ(stamp(), "v3");
    }
}

TEST_F(ClientListTest, RecordsThatNobodyAskedForAreAdded) {
    ask(1);
    push({"asked"}, "v2");
    push({"not asked"}, nullptr);
    push({"nor this"}, "v3");
    EXPECT_EQ(clients(), (std::vector{"asked"s, "nor this"s, "not asked"s}));
    EXPECT_EQ(stamp(), "v3");
    // Nor does a request that got lost make a push of what a tool sends.
    ask(2);
    push({"third"}, "v5");
    push({"of a tool"}, nullptr, false);
    push({"of a tool, too"}, "v6", false);
    list_->equal_stamps();
    EXPECT_EQ(clients(), (std::vector{"of a tool"s, "of a tool, too"s, "third"s}));
    EXPECT_EQ(stamp(), "v6");
}

TEST_F(ClientListTest, AnAnswerInTheMiddleOfAPushMakesItAnother) {
    ask(1);
    ClientPush first{.of_master = true};
    list_->put(first, "of the first", "new");
    EXPECT_TRUE(list_->ask());  // came by another connection
    list_->put(first, "of the first, too", "new");
    EXPECT_TRUE(list_->close(first, "v2"));
    list_->end(first);
    EXPECT_EQ(stamp(), "v1");
    EXPECT_EQ(clients(), std::vector<std::string>{});
}

TEST_F(ClientListTest, AStampThatAKillKeptBackIsStoredByTheNextStart) {
    put(CONFIG_DB, KEY_CLIENT_VERSION, "v1");
    push({"new"}, nullptr);
    std::filesystem::create_hard_link(CLIENT_DB, PREVIOUS_CLIENT_DB);
    write_file(CLIENT_JOURNAL, "closed 0 kept v 2\0v1"s);
    restart();
    EXPECT_EQ(stamp(), "v 2");
    EXPECT_EQ(names(), only_files_);
    // But not over one that a tool has stored since.
    put(CONFIG_DB, KEY_CLIENT_VERSION, "of a tool");
    write_file(CLIENT_JOURNAL, "closed 0 alone v 2\0v1"s);
    restart();
    EXPECT_EQ(stamp(), "of a tool");
    EXPECT_EQ(names(), only_files_);
}

TEST_F(ClientListTest, ADamagedFileThatIsReplacedHasNoStamp) {
    write_file(CLIENT_DB, std::string(8192, 'x'));
    push({"not asked"}, nullptr, false);
    EXPECT_EQ(clients(), std::vector{"not asked"s});
    EXPECT_EQ(stamp(), "(absent)");
    // Nor does a push end whose records were in it.
    put(CONFIG_DB, KEY_CLIENT_VERSION, "v1");
    ask(1);
    ClientPush asked{.of_master = true};
    list_->put(asked, "lost", "new");
    list_->flush(asked);
    write_file(CLIENT_DB, std::string(8192, 'x'));
    push({"not asked"}, nullptr, false);
    list_->put(asked, "more", "new");
    EXPECT_TRUE(list_->close(asked, "v2"));
    list_->end(asked);
    EXPECT_EQ(stamp(), "v1");
}

TEST_F(ClientListTest, OneThatShrinksByMoreThanHalfIsKept) {
    ask(1);
    push({"one", "two"}, "v2");
    EXPECT_EQ(names(), only_files_);
    ask(1);
    push({}, "v3");
    const auto kept = [] {
        return records_of(BEFORE_SHRINK_CLIENT_DB).size();
    };
    EXPECT_THAT(logged(), HasSubstr("ERROR :client list shrunk: 2 -> 0 records"));
    EXPECT_EQ(kept(), 2U);
    ask(1);
    push({"a", "b", "c", "d", "e"}, "v4");
    EXPECT_EQ(kept(), 2U);  // until the next time

    // What a kill left to do is done by the next start, as soon as the disk allows it.
    std::filesystem::rename(CLIENT_DB, PREVIOUS_CLIENT_DB);
    put(CLIENT_DB, "one", "new");
    write_file(CLIENT_JOURNAL, "closed 0 alone v5\0v4"s);
    std::filesystem::remove(BEFORE_SHRINK_CLIENT_DB);
    std::filesystem::create_directory(BEFORE_SHRINK_CLIENT_DB);
    restart();
    EXPECT_THAT(logged(), HasSubstr("ERROR :"s + PREVIOUS_CLIENT_DB + " cannot be kept as "));
    EXPECT_EQ(stamp(), "v4");
    std::filesystem::remove(BEFORE_SHRINK_CLIENT_DB);
    (void)list_->stamps();
    EXPECT_EQ(kept(), 5U);
    EXPECT_THAT(logged(), HasSubstr("client list shrunk: 5 -> 1 records"));
    EXPECT_EQ(stamp(), "v5");

    // Another shrinking costs neither the larger list nor the new stamp.
    ask(1);
    push({}, "v6");
    EXPECT_THAT(logged(), HasSubstr("shrunk: 1 -> 0 records, the old one is removed: "s +
                                    BEFORE_SHRINK_CLIENT_DB + " has 5\n"));
    EXPECT_EQ(std::pair(kept(), stamp()), std::pair(5UL, "v6"s));
    EXPECT_FALSE(std::filesystem::exists(PREVIOUS_CLIENT_DB));

    // A list whose own number is wrong is counted, and one that cannot be counted is kept.
    const std::vector<std::string> six = {"a", "b", "c", "d", "e", "f"};
    ask(1);
    push(six, "v7");
    ask(1);
    constexpr std::streamoff RECORDS_AT = 88;
    std::fstream file(PREVIOUS_CLIENT_DB, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(RECORDS_AT).write("\0\0\0", 4);
    file.close();
    push({}, "v8");
    EXPECT_EQ(kept(), 6U);
    ask(1);
    push(six, "v9");
    ask(1);
    std::filesystem::remove(BEFORE_SHRINK_CLIENT_DB);
    write_file(PREVIOUS_CLIENT_DB, "no list");
    push(six, "v10");
    EXPECT_EQ(std::filesystem::file_size(BEFORE_SHRINK_CLIENT_DB), "no list"s.size());
}

TEST_F(ClientListTest, OneThatIsRestoredInTheMiddleOfAPushGetsNoneOfItsRecords) {
    ask(1);
    ClientPush asked{.of_master = true};
    list_->put(asked, "lost", "new");
    list_->flush(asked);
    std::filesystem::rename(PREVIOUS_CLIENT_DB, CLIENT_DB);
    for (const char* key : {"more", "and more"}) {
        list_->put(asked, key, "new");
        list_->flush(asked);
    }
    EXPECT_TRUE(list_->close(asked, "v2"));
    list_->end(asked);
    EXPECT_EQ(records_of(CLIENT_DB), old_);
    EXPECT_EQ(stamp(), "v1");
}

// --- The way back to the list from before --------------------------------------------------------

TEST_F(ClientListTest, IsPutBackWhenAPushBreaksOff) {
    ask(1);
    ClientPush late{.of_master = true};
    list_->put(late, "new", "new");
    list_->flush(late);
    list_->take_over();
    EXPECT_EQ(records_of(CLIENT_DB), old_);
    const auto line =
        "ERROR :client list put back: 3 records, instead of 1 of an unfinished push\n";
    EXPECT_EQ(count_of(logged(), line), 1U);

    // What is still under way of that push must not be mixed into it.
    list_->put(late, "more", "new");
    EXPECT_TRUE(list_->close(late, "v2"));
    list_->end(late);
    EXPECT_EQ(records_of(CLIENT_DB), old_);
    EXPECT_EQ(stamp(), "v1");
}

TEST_F(ClientListTest, OneThatCannotBeReadReplacesNothing) {
    ask(1);
    push({"new"}, nullptr);
    write_file(PREVIOUS_CLIENT_DB, std::string(8192, 'x'));
    list_->take_over();
    EXPECT_EQ(clients(), std::vector{"new"s});
    EXPECT_THAT(logged(), HasSubstr("ERROR :"s + PREVIOUS_CLIENT_DB + " cannot be read"));
}

// A kill between keeping the list and emptying it leaves two names of one file, with a journal or
// without one. Daemons of before have left a kept list without a journal, too.
TEST_F(ClientListTest, IsPutBackOverItself) {
    for (const char* journal : {"", "unfinished 1 kept "}) {
        std::filesystem::create_hard_link(CLIENT_DB, PREVIOUS_CLIENT_DB);
        if (*journal != '\0') {
            write_file(CLIENT_JOURNAL, journal);
        }
        start_as_master();
        EXPECT_EQ(records_of(CLIENT_DB), old_);
        EXPECT_EQ(names(), only_files_);
    }
}

TEST_F(ClientListTest, WhatAMasterHasMadeOfAPartIsWhole) {
    std::filesystem::remove(CLIENT_DB);
    ask(1);
    push({"part"}, nullptr);
    const std::string journal = contents(CLIENT_JOURNAL);
    start_as_master();
    EXPECT_EQ(clients(), std::vector{"part"s});
    EXPECT_EQ(stamp(), "(absent)");  // it named a list without records
    EXPECT_EQ(names(), only_files_);
    put(CLIENT_DB, "more", "new");
    put(CONFIG_DB, KEY_CLIENT_VERSION, "v2");
    write_file(CLIENT_JOURNAL, journal);  // as if it could not be removed
    restart();
    list_->equal_stamps();
    EXPECT_EQ(clients(), (std::vector{"more"s, "part"s}));
    EXPECT_EQ(stamp(), "v2");
}

TEST_F(ClientListTest, AKeptListIsNotPutBackUnderAStampThatOthersStored) {
    ask(1);
    push({"part"}, nullptr);
    put(CONFIG_DB, KEY_CLIENT_VERSION, "of a tool");
    restart();
    EXPECT_EQ(stamp(), "(absent)");
    list_->take_over();
    EXPECT_EQ(records_of(CLIENT_DB), old_);
}

TEST_F(ClientListTest, AJournalThatMakesNoSenseDoesNoHarm) {
    for (const char* journal : {"", "unfinished", "unfinished x kept ", "whole 1",
                                "unfinished -1 kept ", "odd 1 kept "}) {
        SCOPED_TRACE(journal);
        write_file(CLIENT_JOURNAL, journal);
        restart();
        list_->take_over();
        list_->equal_stamps();
        EXPECT_EQ(records_of(CLIENT_DB), old_);
    }
}

// --- Two threads ---------------------------------------------------------------------------------

TEST_F(ClientListTest, ATakeOverWaitsForTheOpenBatchAndTheReceiverForTheTakeOver) {
    ask(1);
    std::thread supervisor;
    {
        ClientPush push{.of_master = true};
        for (int n = 0; n < 5000; ++n) {
            list_->put(push, std::to_string(n), "new");
            if (n == 0) {
                supervisor = std::thread([this] { list_->take_over(); });
            }
        }
        list_->close(push, "v2");
        list_->end(push);
    }
    supervisor.join();
    const bool put_back = count_of(logged(), "client list put back") == 1;
    EXPECT_EQ(clients().size(), put_back ? 3U : 5000U);
    EXPECT_EQ(stamp(), put_back ? "v1" : "v2");
}

TEST_F(ClientListTest, GrowsUntilTwoSecondsAfterTheLastRecord) {
    EXPECT_FALSE(list_->grows());
    {
        const ClientList::Work work(*list_);
        clock_.time += 10s;  // a disk that takes its time
        EXPECT_TRUE(list_->grows());
    }
    clock_.time += 1999ms;
    EXPECT_TRUE(list_->grows());
    clock_.time += 1ms;
    EXPECT_FALSE(list_->grows());
}

}  // namespace
