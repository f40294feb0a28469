#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <future>
#include <random>
#include <set>

#include "common/store/check.h"
#include "common/store/handle.h"
#include "common/store/page_walk.h"
#include "keys.h"
#include "store.h"
#include "store_backup.h"
#include "support.h"

namespace {

using testing::HasSubstr;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

constexpr const char* LEFTOVER = "/etc/quoradmind/__db.config.db";

// What a test does where its own thread sleeps next.
thread_local std::function<void()> at_pause;

class StoreTest : public WithFiles {};

void fill(const char* path, int records) {
    const auto store = db_open(path);
    for (int n = 0; n < records; ++n) {
        ASSERT_EQ(store->put("key" + std::to_string(n), std::to_string(n)), 0);
    }
    ASSERT_EQ(store->close(), 0);
}

struct stat status_of(const char* path) {
    struct stat status {};
    EXPECT_EQ(stat(path, &status), 0);
    return status;
}

mode_t mode_of(const char* path) {
    return status_of(path).st_mode & 07777U;
}

TEST_F(StoreTest, KeepsTheExactBytesOfKeysAndValues) {
    const std::string key = "m\xC3\xA4rz \x01,#";
    const std::string value(5000, '\xFF');  // longer than a page
    EXPECT_EQ(db_put(CONFIG_DB, key.c_str(), "older, and to be replaced"), 0);
    EXPECT_EQ(db_put(CONFIG_DB, key.c_str(), value.c_str()), 0);
    EXPECT_EQ(stored(CONFIG_DB, key), value);
    const std::vector<std::pair<std::string, std::string>> exactly = {{key, value}};
    EXPECT_EQ(records_of(CONFIG_DB), exactly);  // no terminator among them
}

TEST_F(StoreTest, AnEmptyValueIsNotAnAbsentOne) {
    EXPECT_TRUE(db_store(CONFIG_DB, "empty", ""));
    EXPECT_EQ(stored(CONFIG_DB, "empty"), "");
    EXPECT_EQ(stored(CONFIG_DB, "other"), "(absent)");
    std::string value;
    EXPECT_EQ(db_read_settled(CONFIG_DB, "empty", value), StoreRead::FOUND);
    EXPECT_EQ(db_read_settled(CONFIG_DB, "other", value), StoreRead::ABSENT);
    EXPECT_EQ(db_del(CONFIG_DB, "other"), 0);
    EXPECT_EQ(db_del(CONFIG_DB, "empty"), 0);
    EXPECT_EQ(stored(CONFIG_DB, "empty"), "(absent)");
}

// A reader beside a writer that takes no lock may miss a key that is there.
TEST_F(StoreTest, AMissingKeyIsLookedForOnceMore) {
    put(CONFIG_DB, "other", "value");
    std::string value;
    at_pause = [] {
        put(CONFIG_DB, "stamp", "v1");
    };
    EXPECT_EQ(db_read_settled(CONFIG_DB, "stamp", value), StoreRead::FOUND);
    EXPECT_EQ(value, "v1");
    EXPECT_FALSE(at_pause);
}

TEST_F(StoreTest, ANumberBelowOneCountsAsAbsent) {
    const struct {
        const char* stored;
        int number;
    } rows[] = {{"12 s", 12}, {"1", 1}, {"0", 99}, {"-3", 99}, {"abc", 99}, {"", 99}};
    for (const auto& row : rows) {
        ASSERT_TRUE(db_store(CONFIG_DB, "n", row.stored));
        EXPECT_EQ(db_get_int(CONFIG_DB, "n", 99), row.number) << row.stored;
    }
}

TEST_F(StoreTest, AReadCreatesTheMissingFile) {
    const mode_t before = umask(0);
    EXPECT_EQ(stored(CONFIG_DB, "k"), "(absent)");
    umask(027);
    EXPECT_EQ(stored(CLIENT_DB, "k"), "(absent)");
    umask(before);
    EXPECT_EQ(mode_of(CONFIG_DB), 0664U);
    EXPECT_EQ(mode_of(CLIENT_DB), 0640U);
    EXPECT_EQ(logged(), "");
}

TEST_F(StoreTest, AMissingDirectoryGivesOneLine) {
    const char* path = "/etc/quoradmind/none/config.db";
    CaptureStderr();
    EXPECT_FALSE(OwnedText(db_get(path, "k")));
    EXPECT_EQ(GetCapturedStderr(), "");
    EXPECT_EQ(count_of(logged(), "\n"), 1U);
    EXPECT_THAT(logged(), HasSubstr(" ERROR :DB->open No such file or directory "s + path + "\n"));
    EXPECT_FALSE(db_open(path)->damaged());
}

// Gives a file other contents in place. A change within one tick of the system's clock does not
// show in the file's times, so it is made again until it does.
void overwrite(const char* path, const std::string& bytes) {
    const std::timespec before = status_of(path).st_ctim;
    EXPECT_TRUE(eventually([&] {
        write_file(path, bytes);
        const std::timespec now = status_of(path).st_ctim;
        return now.tv_sec != before.tv_sec || now.tv_nsec != before.tv_nsec;
    }));
}

void expect_refused(const std::string& bytes) {
    EXPECT_EQ(stored(CLIENT_DB, "key7"), "(absent)");
    EXPECT_FALSE(db_store(CLIENT_DB, "key7", "new"));
    EXPECT_EQ(db_del(CLIENT_DB, "key7"), 0);
    EXPECT_TRUE(db_open(CLIENT_DB)->damaged());
    RecordWalk walk(CLIENT_DB);
    std::vector<StoredRecord> chunk;
    EXPECT_FALSE(walk.next_chunk(chunk));
    EXPECT_TRUE(walk.failed());
    EXPECT_EQ(contents(CLIENT_DB), bytes);
    EXPECT_THAT(logged(), HasSubstr("ERROR :DB->open "));
}

void expect_replaced(const std::string& bytes) {
    EXPECT_TRUE(db_replace_empty(CLIENT_DB));
    EXPECT_EQ(contents(CLIENT_DB + ".damaged"s), bytes);
    EXPECT_THAT(logged(), HasSubstr(CLIENT_DB + ".damaged\n"s));
    EXPECT_TRUE(records_of(CLIENT_DB).empty());
    EXPECT_TRUE(db_store(CLIENT_DB, "k", "v"));
    const struct stat now = status_of(CLIENT_DB);
    EXPECT_EQ(now.st_mode & 07777U, 0640U);
    EXPECT_EQ(now.st_uid, 12U);
    EXPECT_EQ(now.st_gid, 34U);
}

// As a machine of the other byte order would begin it; its pages mislead the verifier.
std::string other_byte_order(std::string bytes) {
    for (const std::size_t field : {12U, 16U, 20U}) {
        std::reverse(bytes.begin() + static_cast<std::ptrdiff_t>(field),
                     bytes.begin() + static_cast<std::ptrdiff_t>(field) + 4);
    }
    bytes[4096 + 25] = 15;
    return bytes;
}

TEST_F(StoreTest, ADamagedFileIsRefusedUntilItIsReplacedAndKeptAsideThen) {
    fill(CLIENT_DB, 500);
    const std::string sound = contents(CLIENT_DB);
    const std::pair<const char*, std::string> damages[] = {
        {"other bytes", std::string(sound.size(), 'x')},
        {"zero length", ""},
        {"cut off", sound.substr(0, sound.size() / 2 + 100)},
        {"page in the middle", std::string(sound).replace(8192, 4096, 4096, 'x')},
        {"heap page", std::string(sound).replace(8192 + 25, 1, "\x0f")},
        {"the other byte order", other_byte_order(sound)},
        {"another kind of file", "server_list=192.168.0.1\n"},
    };
    for (const auto& [name, bytes] : damages) {
        SCOPED_TRACE(name);
        WithFiles::SetUp();
        fill(CLIENT_DB, 500);
        EXPECT_EQ(chmod(CLIENT_DB, 0640), 0);
        EXPECT_EQ(chown(CLIENT_DB, 12, 34), 0);
        overwrite(CLIENT_DB, bytes);
        CaptureStderr();
        expect_refused(bytes);
        expect_replaced(bytes);
        EXPECT_EQ(GetCapturedStderr(), "");
    }
}

TEST_F(StoreTest, ASoundFileThatIsDamagedInPlaceIsRefused) {
    fill(CLIENT_DB, 500);
    EXPECT_TRUE(eventually([] {
        EXPECT_TRUE(db_open(CLIENT_DB)->usable());
        return verdict_known(StoreLock(CLIENT_DB));
    }));
    // Of all that the system says about the file, only the time of its last change differs.
    const struct stat before = status_of(CLIENT_DB);
    const std::string damaged = contents(CLIENT_DB).replace(8192 + 25, 1, "\x0f");
    overwrite(CLIENT_DB, damaged);
    const timespec times[] = {before.st_atim, before.st_mtim};
    ASSERT_EQ(utimensat(AT_FDCWD, CLIENT_DB, times, 0), 0);
    ASSERT_EQ(status_of(CLIENT_DB).st_size, before.st_size);
    expect_refused(damaged);
}

TEST_F(StoreTest, ASoundFileIsReplacedWithoutATrace) {
    EXPECT_TRUE(db_replace_empty(CLIENT_DB));  // a missing one is created
    fill(CLIENT_DB, 500);
    ASSERT_EQ(chmod(CLIENT_DB, 0600), 0);
    EXPECT_TRUE(db_replace_empty(CLIENT_DB));
    EXPECT_EQ(records_of(CLIENT_DB).size(), 0U);
    EXPECT_EQ(mode_of(CLIENT_DB), 0600U);
    const auto files = std::filesystem::directory_iterator("/etc/quoradmind");
    EXPECT_EQ(std::distance(begin(files), end(files)), 1);
    EXPECT_EQ(logged(), "");
}

// Verifying it again would take as long as a push of it.
TEST_F(StoreTest, ALargeFileStaysSoundUnderASecondName) {
    {
        const auto store = db_open(CLIENT_DB);
        for (int n = 0; n < 60; ++n) {
            ASSERT_EQ(store->put("key" + std::to_string(n), std::string(30'000, 'x')), 0);
        }
    }
    ASSERT_TRUE(verdict_known(StoreLock(CLIENT_DB)));
    EXPECT_EQ(db_keep(CLIENT_DB, PREVIOUS_CLIENT_DB), StoreKept::YES);
    EXPECT_TRUE(verdict_known(StoreLock(CLIENT_DB)));
}

// Leaves what a killed creation does, last written to so many seconds from now.
std::time_t make_leftover(int seconds) {
    write_file(LEFTOVER, "half a page");
    const timespec then{time(nullptr) + seconds, 0};
    const timespec times[] = {then, then};
    EXPECT_EQ(utimensat(AT_FDCWD, LEFTOVER, times, 0), 0);
    return then.tv_sec;
}

TEST_F(StoreTest, ALeftoverOfAKilledCreationDoesNotBlockTheNextOne) {
    make_leftover(-60);
    EXPECT_TRUE(db_store(CONFIG_DB, "k", "v"));  // else the library waits 100 seconds
    EXPECT_FALSE(std::filesystem::exists(LEFTOVER));
    make_leftover(+60);  // by a clock that was set back since
    remove_leftover_creation(CONFIG_DB);
    EXPECT_FALSE(std::filesystem::exists(LEFTOVER));
}

TEST_F(StoreTest, ACreationOfAnotherProcessIsWaitedFor) {
    const std::time_t made = make_leftover(0);
    remove_leftover_creation(CONFIG_DB);
    EXPECT_TRUE(std::filesystem::exists(LEFTOVER) || time(nullptr) > made + 1);
}

bool put_many(int writer, int puts) {
    for (int n = 0; n < puts; ++n) {
        const std::string key = std::to_string(writer) + "-" + std::to_string(n);
        if (!db_store(CONFIG_DB, key.c_str(), std::string(100, 'v').c_str())) {
            return false;
        }
    }
    return true;
}

TEST_F(StoreTest, AThreadWaitsForAnOpenFileHoweverLong) {
    const auto store = db_open(CONFIG_DB);
    auto other = std::async(std::launch::async, db_store, CONFIG_DB, "k", "last");
    EXPECT_EQ(other.wait_for(600ms), std::future_status::timeout);  // flock alone would give up
    EXPECT_EQ(store->put("k", "first"), 0);
    EXPECT_EQ(store->close(), 0);
    EXPECT_TRUE(other.get());
    EXPECT_EQ(stored(CONFIG_DB, "k"), "last");
}

// With the patience of a tool: on a busy machine the daemon's own might end, as it should.
class PatientStore : public StoreTest {
protected:
    void SetUp() override {
        StoreTest::SetUp();
        set_store_use(StoreUse::EDIT);
    }
    void TearDown() override { set_store_use(StoreUse::SERVE); }
};

TEST_F(PatientStore, LosesNothingToThreadsAndProcesses) {
    int gate[2] = {-1, -1};
    ASSERT_EQ(pipe2(gate, O_CLOEXEC), 0);
    pid_t processes[4] = {};
    for (int writer = 0; writer < 4; ++writer) {
        if ((processes[writer] = fork()) == 0) {
            char start = 0;
            close(gate[1]);
            (void)!read(gate[0], &start, 1);  // returns when the last writer can start
            _exit(put_many(writer, 75) ? 0 : 1);
        }
    }
    close(gate[0]);
    close(gate[1]);
    std::vector<std::future<bool>> threads;
    for (int writer = 4; writer < 12; ++writer) {
        threads.push_back(std::async(std::launch::async, put_many, writer, 75));
    }
    for (auto& thread : threads) {
        EXPECT_TRUE(thread.get());
    }
    for (const pid_t process : processes) {
        int status = -1;
        EXPECT_EQ(waitpid(process, &status, 0), process);
        EXPECT_EQ(status, 0);
    }
    EXPECT_EQ(records_of(CONFIG_DB).size(), 12U * 75);
    EXPECT_EQ(logged(), "");
}

TEST_F(PatientStore, FollowsAFileThatSomebodyElseReplaces) {
    put(CLIENT_DB, "k", "old");
    put(DISK_DB, "k", "in its place");
    OwnedFd old(open(CLIENT_DB, O_RDONLY | O_CLOEXEC));
    OwnedFd fresh(open(DISK_DB, O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(flock(old.get(), LOCK_EX), 0);
    ASSERT_EQ(flock(fresh.get(), LOCK_EX), 0);
    auto writer = std::async(std::launch::async, db_store, CLIENT_DB, "k", "last");
    EXPECT_EQ(writer.wait_for(200ms), std::future_status::timeout);
    std::filesystem::rename(DISK_DB, CLIENT_DB);
    old.reset();
    EXPECT_EQ(writer.wait_for(200ms), std::future_status::timeout);  // that one is locked, too
    fresh.reset();
    EXPECT_TRUE(writer.get());
    EXPECT_EQ(stored(CLIENT_DB, "k"), "last");
}

OwnedFd locked(const char* path, int kind, bool marked) {
    OwnedFd file(open(path, O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(flock(file.get(), kind), 0);
    if (marked) {
        mark_flock(file.get());
    }
    return file;
}

TEST_F(StoreTest, ALockThatIsKeptDelaysOnlyAndAChangeWithoutItIsLogged) {
    for (const bool ours : {false, true}) {
        WithFiles::SetUp();
        fill(CONFIG_DB, 1);
        const OwnedFd kept = locked(CONFIG_DB, LOCK_EX, ours);
        EXPECT_EQ(stored(CONFIG_DB, "key0"), "0");
        EXPECT_EQ(logged(), "");
        EXPECT_TRUE(db_store(CONFIG_DB, "k", "v"));
        EXPECT_EQ(stored(CONFIG_DB, "k"), "v");
        EXPECT_EQ(count_of(logged(), "\n"), 1U);
        EXPECT_THAT(logged(), HasSubstr("config.db changed without its lock"));
    }
    const OwnedFd kept = locked(CONFIG_DB, LOCK_EX, false);
    set_store_use(StoreUse::EDIT);  // a tool must not write then
    EXPECT_FALSE(db_store(CONFIG_DB, "k", "by hand"));
    set_store_use(StoreUse::SERVE);
    EXPECT_EQ(stored(CONFIG_DB, "k"), "v");
}

TEST_F(StoreTest, HoldersThatTakeTurnsAreWaitedForHoweverLong) {
    constexpr int TURNS = 400;  // pauses of a millisecond or more
    fill(CONFIG_DB, 1);
    OwnedFd holder = locked(CONFIG_DB, LOCK_SH, true);
    int turns = 0;
    const std::function<void()> next = [&] {
        holder = ++turns < TURNS ? locked(CONFIG_DB, LOCK_SH, true) : OwnedFd();
        at_pause = next;
    };
    at_pause = next;
    EXPECT_TRUE(db_store(CONFIG_DB, "k", "v"));
    at_pause = nullptr;
    EXPECT_EQ(turns, TURNS);
    EXPECT_EQ(logged(), "");
}

TEST_F(StoreTest, AChangedFileKeepsLinkModeOwnerAndReaders) {
    fill(DISK_DB, 1);
    ASSERT_EQ(chmod(DISK_DB, 0640), 0);
    ASSERT_EQ(chown(DISK_DB, 12, 34), 0);
    std::filesystem::create_symlink(DISK_DB, CONFIG_DB);
    const std::string old = contents(DISK_DB);
    const OwnedFd reader(open(DISK_DB, O_RDONLY | O_CLOEXEC));
    write_file(DISK_DB + ".changed2"s, "left by a kill");
    write_file(DISK_DB + ".changed"s, "of a writer at work");
    const OwnedFd writer = locked("/etc/quoradmind/disk.db.changed", LOCK_EX, false);
    EXPECT_TRUE(db_store(CONFIG_DB, "k", "v"));
    EXPECT_TRUE(std::filesystem::is_symlink(CONFIG_DB));
    EXPECT_EQ(stored(DISK_DB, "k"), "v");
    EXPECT_EQ(mode_of(DISK_DB), 0640U);
    EXPECT_EQ(status_of(DISK_DB).st_uid, 12U);
    EXPECT_EQ(status_of(DISK_DB).st_gid, 34U);
    EXPECT_EQ(contents("/proc/self/fd/" + std::to_string(reader.get())), old);
    EXPECT_EQ(contents(DISK_DB + ".changed"s), "of a writer at work");
    EXPECT_FALSE(std::filesystem::exists(DISK_DB + ".changed2"s));
}

TEST_F(StoreTest, ABackupIsANewFileOfTheCallersOwn) {
    fill(CONFIG_DB, 2);
    write_file(DISK_DB, "of another one");
    ASSERT_EQ(chmod(CONFIG_DB, 0664), 0);
    ASSERT_EQ(chown(CONFIG_DB, 12, 34), 0);
    std::filesystem::create_symlink(DISK_DB, CLIENT_DB);
    EXPECT_EQ(db_back_up(CONFIG_DB, CLIENT_DB), "");
    EXPECT_EQ(contents(DISK_DB), "of another one");
    EXPECT_FALSE(std::filesystem::is_symlink(CLIENT_DB));
    EXPECT_EQ(records_of(CLIENT_DB), records_of(CONFIG_DB));
    EXPECT_EQ(mode_of(CLIENT_DB), 0600U);
    EXPECT_EQ(status_of(CLIENT_DB).st_uid, geteuid());
    EXPECT_NE(db_back_up(DISK_DB, CLIENT_DB), "");
    EXPECT_EQ(records_of(CLIENT_DB).size(), 2U);
}

TEST_F(StoreTest, ACopyIsSoundAndKeepsLinkModeAndOwner) {
    fill(DISK_DB, 1);
    fill(CLIENT_DB, 2);
    ASSERT_EQ(chmod(DISK_DB, 0640), 0);
    ASSERT_EQ(chown(DISK_DB, 12, 34), 0);
    std::filesystem::create_symlink(DISK_DB, CONFIG_DB);
    EXPECT_EQ(db_copy(CLIENT_DB, CONFIG_DB), "");
    EXPECT_TRUE(std::filesystem::is_symlink(CONFIG_DB));
    EXPECT_EQ(records_of(DISK_DB), records_of(CLIENT_DB));
    EXPECT_EQ(db_copy(DISK_DB, "/etc/quoradmind/new.db"), "");
    EXPECT_EQ(mode_of(DISK_DB), 0640U);
    EXPECT_EQ(status_of(DISK_DB).st_uid, 12U);
    EXPECT_EQ(status_of(DISK_DB).st_gid, 34U);
    // As a store that was just created, whoever the copy belongs to.
    EXPECT_EQ(mode_of("/etc/quoradmind/new.db") & ~0022U, 0644U);
    EXPECT_EQ(status_of("/etc/quoradmind/new.db").st_uid, geteuid());
    // An ordinary user's copy has the mode, but no rights that were those of the owner.
    ASSERT_EQ(chmod(CLIENT_DB, 0644), 0);
    ASSERT_EQ(chmod("/etc/quoradmind", 0777), 0);
    ASSERT_EQ(chmod(DISK_DB, 06664), 0);
    ASSERT_EQ(seteuid(65534), 0);
    EXPECT_EQ(db_copy(CLIENT_DB, CONFIG_DB), "");
    ASSERT_EQ(seteuid(0), 0);
    EXPECT_EQ(mode_of(DISK_DB), 0604U);  // neither owner nor group could be kept
    EXPECT_EQ(status_of(DISK_DB).st_uid, 65534U);
    write_file(CLIENT_DB, std::string(8192, 'x'));
    EXPECT_NE(db_copy(CLIENT_DB, CONFIG_DB), "");
    EXPECT_NE(db_copy("/etc/quoradmind/none.db", CONFIG_DB), "");
    EXPECT_EQ(records_of(DISK_DB).size(), 2U);
    const auto files = std::filesystem::directory_iterator("/etc/quoradmind");
    EXPECT_EQ(std::distance(begin(files), end(files)), 4);
}

TEST_F(StoreTest, ABatchWhoseFileWasReplacedIsNotTakenForStored) {
    fill(DISK_DB, 1);
    const auto batch = db_open(CLIENT_DB, 1U << 20U);
    EXPECT_EQ(batch->put("k", "v"), 0);
    std::filesystem::rename(DISK_DB, CLIENT_DB);
    EXPECT_EQ(batch->close(), ESTALE);
}

TEST_F(StoreTest, AFileWhoseOwnerCannotBeKeptStays) {
    fill(CLIENT_DB, 1);
    ASSERT_EQ(chmod(CLIENT_DB, 0666), 0);
    ASSERT_EQ(chmod("/etc/quoradmind", 0777), 0);
    ASSERT_EQ(seteuid(65534), 0);
    EXPECT_FALSE(db_store(CLIENT_DB, "key0", "other"));
    EXPECT_FALSE(db_replace_empty(CLIENT_DB));
    ASSERT_EQ(seteuid(0), 0);
    ASSERT_EQ(chmod("/etc/quoradmind", 0755), 0);
    EXPECT_EQ(stored(CLIENT_DB, "key0"), "0");
    const auto files = std::filesystem::directory_iterator("/etc/quoradmind");
    EXPECT_EQ(std::distance(begin(files), end(files)), 1);
}

// A tool that looks on finds no file where there is none, and leaves it at that.
TEST_F(StoreTest, InspectingChangesNothing) {
    put(CONFIG_DB, "key", "value");
    set_store_use(StoreUse::INSPECT);
    EXPECT_EQ(stored(CLIENT_DB, "key"), "(absent)");
    EXPECT_FALSE(db_store(CLIENT_DB, "key", "value"));
    EXPECT_FALSE(std::filesystem::exists(CLIENT_DB));
    EXPECT_FALSE(db_store(CONFIG_DB, "key", "other"));
    EXPECT_EQ(stored(CONFIG_DB, "key"), "value");
    set_store_use(StoreUse::SERVE);
}

TEST_F(StoreTest, AWalkYieldsEveryRecordOnceAndNothingOfWhatIsWrittenMeanwhile) {
    fill(CLIENT_DB, 2500);
    std::multiset<std::string> keys;
    int chunks = 0;
    RecordWalk walk(CLIENT_DB);
    for (std::vector<StoredRecord> chunk; chunks < 100 && walk.next_chunk(chunk); ++chunks) {
        for (const StoredRecord& record : chunk) {
            keys.insert(record.key);
        }
        EXPECT_EQ(db_del(CLIENT_DB, chunk.back().key.c_str()), 0);
        EXPECT_TRUE(db_store(CLIENT_DB, ("new " + chunk.back().key).c_str(), "value"));
    }
    EXPECT_FALSE(walk.failed());
    EXPECT_GT(chunks, 1);
    EXPECT_EQ(keys.size(), 2500U);
    EXPECT_EQ(std::set<std::string>(keys.begin(), keys.end()).size(), 2500U);
    EXPECT_EQ(records_of(CLIENT_DB).size(), 2500U);
    RecordWalk of_no_records(DISK_DB);
    std::vector<StoredRecord> chunk;
    EXPECT_FALSE(of_no_records.next_chunk(chunk));
    EXPECT_FALSE(of_no_records.failed());
}

// Of all kinds of pages: records that came and went, also such that fill several pages.
void fill_and_thin_out(std::mt19937& random, int steps) {
    const auto store = db_open(CLIENT_DB);
    for (int n = 0; n < steps; ++n) {
        const std::string key = std::to_string(random() % 3000) + "key";
        const std::size_t size = random() % 40 == 0 ? 3000 + random() % 20'000 : random() % 300;
        if (random() % 3 == 0) {
            (void)store->del(key);
        } else {
            ASSERT_EQ(store->put(random() % 50 == 0 ? key + std::string(5000, 'k') : key,
                                 std::string(size, 'v') + std::to_string(n)),
                      0);
        }
    }
}

std::vector<std::pair<std::string, std::string>> walked_records(RecordWalk& walk) {
    std::vector<std::pair<std::string, std::string>> records;
    for (std::vector<StoredRecord> chunk; walk.next_chunk(chunk);) {
        for (const StoredRecord& record : chunk) {
            records.emplace_back(record.key, record.value);
        }
    }
    return records;
}

TEST_F(StoreTest, AWalkYieldsWhatTheLibraryDoesInItsOrder) {
    std::mt19937 random(1);
    for (const int steps : {0, 1, 40, 700, 9000}) {
        fill_and_thin_out(random, steps);
        RecordWalk walk(CLIENT_DB);
        EXPECT_EQ(walked_records(walk), records_of(CLIENT_DB)) << steps;
        EXPECT_EQ(db_count(CLIENT_DB), records_of(CLIENT_DB).size()) << steps;
        EXPECT_EQ(walk.failure(), "");
    }
}

// The library's verifier is not asked: a record that is left out would be missing on the slave.
TEST_F(StoreTest, AWalkOverADamagedFileLeavesNoRecordOutUnnoticed) {
    std::mt19937 random(2);
    fill_and_thin_out(random, 2000);
    const std::string sound = contents(CLIENT_DB);
    const auto number = [](auto value) {
        return std::string(1, static_cast<char>(value));
    };
    int damaged = 0;
    for (std::size_t page = 4096; page < sound.size(); page += 4096) {
        const auto entries = static_cast<std::uint8_t>(sound[page + 20]);
        const std::pair<std::size_t, std::string> changes[] = {
            {16, number(page / 4096)},   // the page follows itself
            {20, number(entries - 2U)},  // a record less
            {24 + 2U * entries,
             number(sound[page + 24 + 2U * entries] ^ 0x55)},  // an item elsewhere
            {25, number(0)},                                   // a free page
        };
        for (const auto& [at, bytes] : changes) {
            write_file(CLIENT_DB, std::string(sound).replace(page + at, 1, bytes));
            const OwnedFd file(open(CLIENT_DB, O_RDONLY | O_CLOEXEC));
            if (entries >= 2) {
                EXPECT_NE(check_pages(file.get()), 0) << page / 4096 << " at " << at;
                ++damaged;
            }
        }
    }
    EXPECT_GT(damaged, 100);
}

// As an ordinary user has the tool look at it: no spinning until the end of its patience.
TEST_F(StoreTest, AFileThatMayNotBeReadIsRefusedAtOnce) {
    put(CONFIG_DB, "key", "value");
    ASSERT_EQ(chmod(CONFIG_DB, 0600), 0);
    set_store_use(StoreUse::INSPECT);
    ASSERT_EQ(seteuid(65534), 0);
    testing::internal::CaptureStdout();
    const std::clock_t before = std::clock();
    EXPECT_EQ(db_get(CONFIG_DB, "key"), nullptr);
    EXPECT_LT(std::clock() - before, 5 * CLOCKS_PER_SEC);
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                testing::EndsWith("ERROR :DB->open Permission denied "s + CONFIG_DB + "\n"));
    ASSERT_EQ(seteuid(0), 0);
    set_store_use(StoreUse::SERVE);
}

}  // namespace

// In the place of the C library's own: the pauses in the code under test end in a system call.
extern "C" int nanosleep(const timespec* length, timespec* rest) {
    if (at_pause) {
        std::exchange(at_pause, nullptr)();
    }
    return static_cast<int>(syscall(SYS_nanosleep, length, rest));
}
