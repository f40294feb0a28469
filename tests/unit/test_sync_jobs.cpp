#include <sys/mount.h>
#include <sys/stat.h>

#include <cstring>

#include "keys.h"
#include "support.h"
#include "syncd/owed_reload.h"
#include "syncd/sync_jobs.h"

namespace {

using testing::HasSubstr;
using testing::IsEmpty;

class SyncJobs : public WithFiles {
protected:
    static constexpr const char* COPY = "/etc/quoradmind/10.0.0.2.db";

    // Whether a heartbeat asks for a fetch; no worker is there to do it.
    static bool asks(const std::string& dsver, const std::string& serverip = "10.0.0.2") {
        const std::size_t before = count_of(logged(), "--add_to_sync_config_db--");
        check_server_dsver(make_heartbeat(serverip, dsver).heartbeat);
        return count_of(logged(), "--add_to_sync_config_db--") > before;
    }

    static long status_kib(const std::string& field) {
        const std::string status = contents("/proc/self/status");
        return std::stol(status.substr(status.find(field + ":") + field.size() + 1));
    }
};

// Whoever can send a datagram could fill the disk.
TEST_F(SyncJobs, NoHeartbeatMakesAFile) {
    for (int n = 0; n < 50; ++n) {
        EXPECT_TRUE(asks("stamp", "10.0.1." + std::to_string(n)));
    }
    EXPECT_TRUE(std::filesystem::is_empty("/etc/quoradmind"));
    EXPECT_THAT(logged(), testing::Not(HasSubstr("ERROR")));
}

TEST_F(SyncJobs, AStampIsComparedAsItsSenderCutsIt) {
    put(COPY, KEY_DSVER, "stamp");
    EXPECT_FALSE(asks("stamp"));
    EXPECT_FALSE(asks(""));
    EXPECT_TRUE(asks("stamp2"));
    put(COPY, KEY_DSVER, std::string(40, 's'));
    EXPECT_FALSE(asks(std::string(32, 's')));
    {
        const auto store = db_open(COPY);
        ASSERT_EQ(store->put("dsver"sv, "stamp\0"sv), 0);
    }
    EXPECT_FALSE(asks("stamp"));
    write_file(COPY, std::string(8192, 'x'));
    EXPECT_TRUE(asks("stamp"));
}

// A server may send a copy as large as a fetch allows; each of its heartbeats is compared with it.
TEST_F(SyncJobs, OfAHugeStampOnlyTheBeginningIsRead) {
    put(COPY, KEY_DSVER, std::string(40UL << 20U, 's'));
    write_file("/proc/self/clear_refs", "5");  // the peak begins anew
    const long before = status_kib("VmHWM");
    EXPECT_FALSE(asks(std::string(32, 's')));
    EXPECT_LT(status_kib("VmHWM") - before, 20L << 10U);
}

TEST_F(SyncJobs, AnOwedReloadIsPaidOnce) {
    ASSERT_EQ(mount("tmpfs", "/var/lib", "tmpfs", 0, "mode=755"), 0);
    reload_for_last_run();
    EXPECT_THAT(logged(), IsEmpty());
    note_reload();
    reload_for_last_run();
    reload_for_last_run();
    EXPECT_EQ(count_of(logged(), "INFO :reload owed since the last run\n"), 1U);
    EXPECT_EQ(count_of(logged(), "DEBUG :refresh_dhcp\n"), 1U);
    EXPECT_TRUE(std::filesystem::is_empty("/etc/quoradmind"));
    EXPECT_EQ(umount("/var/lib"), 0);
}

}  // namespace
