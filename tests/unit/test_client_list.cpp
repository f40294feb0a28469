#include "keys.h"
#include "slave/client_list.h"
#include "slave/record_sink.h"
#include "support.h"

namespace {

using testing::HasSubstr;
using Records = std::vector<std::pair<std::string, std::string>>;

class ClientList : public WithFiles {
protected:
    void SetUp() override {
        WithFiles::SetUp();
        for (const char* key : {"one", "two", "three"}) {
            put(CLIENT_DB, key, "old");
        }
        old_ = records_of(CLIENT_DB);
        put(CONFIG_DB, KEY_CLIENT_VERSION, "v1");
        ASSERT_TRUE(clear_client_db());
    }
    // Whether a list was put back is remembered until the next one begins.
    void TearDown() override { EXPECT_TRUE(clear_client_db()); }

    // A push of one record and, if it gets that far, its stamp.
    static void push(const char* stamp, const char* client = "new") {
        RecordSink sink;
        sink.apply_data_record(make_data_record(DATA_KIND_CLIENT, client, client).record);
        if (stamp != nullptr) {
            sink.apply_data_record(make_data_record(DATA_KIND_CLIENT, DBVER_KEY, stamp).record);
        }
    }
    static bool kept() { return std::filesystem::exists(PREVIOUS_CLIENT_DB); }

    const Records new_ = {{"new", "new"}};
    Records old_;
};

TEST_F(ClientList, IsPutBackWhenAPushBreaksOff) {
    push(nullptr);
    EXPECT_TRUE(clear_client_db());  // and again
    push(nullptr);
    EXPECT_EQ(records_of(CLIENT_DB), new_);
    put_back_client_list();
    EXPECT_EQ(records_of(CLIENT_DB), old_);
    EXPECT_FALSE(kept());
    const auto line =
        "ERROR :client list put back: 3 records, instead of 1 of an unfinished push\n";
    EXPECT_EQ(count_of(logged(), line), 1U);

    // What is still under way of that push must not be mixed into it.
    push("v2");
    EXPECT_EQ(records_of(CLIENT_DB), old_);
    EXPECT_EQ(stored(CONFIG_DB, KEY_CLIENT_VERSION), "v1");
    complete_client_list("v2");
    EXPECT_EQ(stored(CONFIG_DB, KEY_CLIENT_VERSION), "v1");

    EXPECT_TRUE(clear_client_db());
    push("v2");
    EXPECT_EQ(records_of(CLIENT_DB), new_);
    EXPECT_EQ(stored(CONFIG_DB, KEY_CLIENT_VERSION), "v2");
    EXPECT_FALSE(kept());
}

// Each of several answers at once made a request, and clients are removed while they are served.
TEST_F(ClientList, HasRecordsOfOneSetOnly) {
    EXPECT_TRUE(clear_client_db());
    EXPECT_TRUE(clear_client_db());
    push("v2", "removed");
    push("v3", "new");
    EXPECT_EQ(records_of(CLIENT_DB), new_);
    EXPECT_EQ(stored(CONFIG_DB, KEY_CLIENT_VERSION), "v3");
    put_back_client_list();
    EXPECT_EQ(records_of(CLIENT_DB), new_);

    // What comes without a request is added, as ever.
    note_equal_client_lists();
    push("v4", "more");
    EXPECT_EQ(records_of(CLIENT_DB).size(), 2U);
    EXPECT_EQ(stored(CONFIG_DB, KEY_CLIENT_VERSION), "v4");
}

TEST_F(ClientList, IsNotPutBackWhileItGrows) {
    std::thread supervisor;
    {
        RecordSink sink;
        for (int n = 0; n < 5000; ++n) {
            sink.apply_data_record(
                make_data_record(DATA_KIND_CLIENT, std::to_string(n), "new").record);
            if (n == 0) {
                supervisor = std::thread([] {
                    await_end_of_push();
                    put_back_client_list();
                });
            }
        }
        sink.apply_data_record(make_data_record(DATA_KIND_CLIENT, DBVER_KEY, "v2").record);
    }
    supervisor.join();
    EXPECT_EQ(records_of(CLIENT_DB).size(), 5000U);
    EXPECT_EQ(stored(CONFIG_DB, KEY_CLIENT_VERSION), "v2");
    EXPECT_THAT(logged(), Not(HasSubstr("put back")));
}

TEST_F(ClientList, IsNotPutBackOnceTheNewOneIsComplete) {
    push("v2");
    put_back_client_list();
    EXPECT_EQ(records_of(CLIENT_DB), new_);
    EXPECT_THAT(logged(), Not(HasSubstr("put back")));
}

TEST_F(ClientList, AnEmptyOneIsNothingToGoBackTo) {
    put_back_client_list();
    for (const auto& record : old_) {
        EXPECT_EQ(db_del(CLIENT_DB, record.first.c_str()), 0);
    }
    EXPECT_TRUE(clear_client_db());
    EXPECT_FALSE(kept());
}

TEST_F(ClientList, OneThatCannotBeReadReplacesNothing) {
    write_file(PREVIOUS_CLIENT_DB, std::string(8192, 'x'));
    push(nullptr);
    put_back_client_list();
    EXPECT_EQ(records_of(CLIENT_DB), new_);
    EXPECT_THAT(logged(), HasSubstr("ERROR :"s + PREVIOUS_CLIENT_DB + " cannot be read"));
}

// A kill between keeping the list and emptying it leaves two names of one file.
TEST_F(ClientList, IsPutBackOverItself) {
    put_back_client_list();
    std::filesystem::create_hard_link(CLIENT_DB, PREVIOUS_CLIENT_DB);
    put_back_client_list();
    EXPECT_EQ(records_of(CLIENT_DB), old_);
    EXPECT_FALSE(kept());
}

}  // namespace
