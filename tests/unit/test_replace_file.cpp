#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "common/store/handle.h"
#include "keys.h"
#include "replace_file.h"
#include "support.h"

namespace {

bool fail_directory_flush = false;
int failure_of_data_flush = 0;
std::atomic<int> data_flushes = 0;
std::function<void()> at_flush;  // of a file

class ReplaceFile : public WithFiles {
protected:
    void SetUp() override {
        WithFiles::SetUp();
        write_file(target_, "old");
        write_file(fresh_, "left by a kill");
    }
    bool fresh_is_left() const { return std::filesystem::exists(fresh_); }

    const std::string target_ = "/etc/quoradmind/target";
    const std::string fresh_ = target_ + ".new";
};

int fill_half_and_fail(const std::string& fresh) {
    write_file(fresh, "hal");
    return ENOSPC;
}

int fill(const std::string& fresh) {
    EXPECT_FALSE(std::filesystem::exists(fresh));
    write_file(fresh, "new");
    return 0;
}

TEST_F(ReplaceFile, TellsOldFromNewAndLeavesNothingElse) {
    const auto refuse = [](const std::string&, const std::string&) {
        return EPERM;
    };
    const Replacement unnamed = replace_file(target_, fill, refuse);
    EXPECT_EQ(unnamed.error, EPERM);
    EXPECT_FALSE(fresh_is_left());
    for (const Replacement& failed : {unnamed, replace_file(target_, fill_half_and_fail)}) {
        EXPECT_FALSE(failed.in_place);
        EXPECT_NE(failed.error, 0);
        EXPECT_EQ(contents(target_), "old");
        EXPECT_FALSE(fresh_is_left());
    }

    const Replacement whole = replace_file(target_, fill);
    EXPECT_TRUE(whole.in_place);
    EXPECT_EQ(whole.error, 0);
    EXPECT_EQ(contents(target_), "new");
    EXPECT_FALSE(fresh_is_left());
}

// What is left there could be anything: the store's library would open it and not make a new one.
TEST_F(ReplaceFile, ALeftoverThatCannotBeRemovedIsNotFilled) {
    std::filesystem::remove(fresh_);
    std::filesystem::create_directory(fresh_);
    const auto fill_no_file = [](const std::string&) {
        ADD_FAILURE();
        return 0;
    };
    EXPECT_EQ(replace_file(target_, fill_no_file).error, EISDIR);
    EXPECT_EQ(contents(target_), "old");
    // It would wait for a creation to end that nobody is at.
    const std::string creation = "/etc/quoradmind/__db.config.db";
    std::filesystem::create_directory(creation);
    std::filesystem::last_write_time(creation, {});
    EXPECT_FALSE(db_store(CONFIG_DB, "key", "value"));
    EXPECT_THAT(logged(),
                testing::HasSubstr(fmt::format("ERROR :DB->open Is a directory {}", CONFIG_DB)));
}

TEST_F(ReplaceFile, ADatabaseThatMayComeBackIsNotEmptied) {
    put(CLIENT_DB, "key", "value");
    EXPECT_TRUE(db_replace_empty(CLIENT_DB));
    fail_directory_flush = true;
    EXPECT_FALSE(db_replace_empty(CLIENT_DB));
    EXPECT_EQ(put_copy_in_place(fresh_, target_), "");
    fail_directory_flush = false;
    EXPECT_THAT(logged(), testing::HasSubstr(CLIENT_DB + " cannot be emptied:Input/output error"s));
    EXPECT_THAT(logged(), testing::HasSubstr(target_ + " cannot be flushed:Input/output error"));
    EXPECT_EQ(contents(target_), "left by a kill");
}

TEST_F(ReplaceFile, ABatchIsFlushedOnceAndTellsIfItIsNot) {
    for (const int failure : {0, EIO}) {
        const std::unique_ptr<Store> batch = db_open(CLIENT_DB, 1U << 20U);
        ASSERT_EQ(batch->put("key", std::to_string(failure)), 0);
        data_flushes = 0;
        failure_of_data_flush = failure;
        EXPECT_EQ(batch->close(), failure);
        failure_of_data_flush = 0;
        EXPECT_EQ(data_flushes, 1);
    }
}

TEST_F(ReplaceFile, ADatabaseThatCannotBeFlushedIsNotCreated) {
    failure_of_data_flush = EIO;
    EXPECT_FALSE(db_store(DISK_DB, "key", "value"));
    failure_of_data_flush = 0;
    EXPECT_THAT(logged(), testing::HasSubstr("DB->open Input/output error"));
}

TEST_F(ReplaceFile, TellsThatANameMayNotBeOnDisk) {
    const auto rename_and_hide_directory = [](const std::string& from, const std::string& to) {
        const int result = rename_file(from, to);
        std::filesystem::rename("/etc/quoradmind", "/etc/hidden");
        return result;
    };
    const Replacement result = replace_file(target_, fill, rename_and_hide_directory);
    std::filesystem::rename("/etc/hidden", "/etc/quoradmind");
    EXPECT_TRUE(result.in_place);
    EXPECT_EQ(result.error, ENOENT);
}

void put_without_lock(const char* path, const std::string& value) {
    DB* db = create_handle(0);
    ASSERT_EQ(db->open(db, nullptr, path, nullptr, DB_HASH, 0, 0), 0);
    std::string key = "foreign";
    std::string text = value;
    DBT name{};
    DBT data{};
    name.data = key.data();
    name.size = static_cast<u_int32_t>(key.size());
    data.data = text.data();
    data.size = static_cast<u_int32_t>(text.size());
    EXPECT_EQ(db->put(db, nullptr, &name, &data, 0), 0);
    EXPECT_EQ(db->close(db, 0), 0);
}

TEST_F(ReplaceFile, AChangeIsMadeAgainToWhatAForeignProgramHasWritten) {
    put(CONFIG_DB, "old", "value");
    int writes = 0;
    at_flush = [&] {
        put_without_lock(CONFIG_DB, std::to_string(++writes));
        at_flush = nullptr;
    };
    const auto store = db_open(CONFIG_DB);
    EXPECT_EQ(store->del("old"), 0);
    EXPECT_EQ(store->put("new", "value"), 0);
    EXPECT_EQ(store->close(), 0);
    const std::vector<std::pair<std::string, std::string>> both = {{"foreign", "1"},
                                                                   {"new", "value"}};
    EXPECT_THAT(records_of(CONFIG_DB), testing::UnorderedElementsAreArray(both));
    EXPECT_EQ(logged(), "");

    at_flush = [&] {
        put_without_lock(CONFIG_DB, std::to_string(++writes));
    };
    EXPECT_FALSE(db_store(CONFIG_DB, "new", "other"));
    at_flush = nullptr;
    EXPECT_EQ(stored(CONFIG_DB, "new"), "value");
    EXPECT_EQ(stored(CONFIG_DB, "foreign"), std::to_string(writes));
    EXPECT_THAT(logged(), testing::HasSubstr("config.db not changed: another program keeps"));
}

// A reader must not see the new file before the caller has noted that it is there.
TEST_F(ReplaceFile, NobodyOpensARenamedDatabaseBeforeItsCallerKnows) {
    put(DISK_DB, "which", "new");
    put(CLIENT_DB, "which", "old");
    std::atomic<bool> read = false;
    std::thread reader;
    const auto note = [&] {
        reader = std::thread([&] {
            EXPECT_EQ(stored(CLIENT_DB, "which"), "new");
            read = true;
        });
        std::this_thread::sleep_for(20ms);  // a fault shows in this time, a sound lock in any
        EXPECT_FALSE(read);
    };
    EXPECT_EQ(db_rename_over(DISK_DB, CLIENT_DB, note), 0);
    reader.join();
    EXPECT_TRUE(read);
    EXPECT_EQ(db_rename_over(DISK_DB, CLIENT_DB, [] { ADD_FAILURE() << "nothing renamed"; }),
              ENOENT);
}

}  // namespace

// In the place of the C library's own: a disk that fails while it takes names.
extern "C" int fsync(int fd) {
    struct stat status {};
    const bool directory = fstat(fd, &status) == 0 && S_ISDIR(status.st_mode);
    if (fail_directory_flush && directory) {
        errno = EIO;
        return -1;
    }
    if (at_flush && !directory) {
        const auto hook = at_flush;  // which may take itself away
        hook();
    }
    return static_cast<int>(syscall(SYS_fsync, fd));
}

// The same for the data of a database that is written in place.
extern "C" int fdatasync(int fd) {
    ++data_flushes;
    errno = failure_of_data_flush;
    return errno == 0 ? static_cast<int>(syscall(SYS_fdatasync, fd)) : -1;
}
