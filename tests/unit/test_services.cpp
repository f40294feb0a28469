#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <csignal>

#include "services.h"
#include "support.h"

namespace {

using testing::HasSubstr;

constexpr const char* PIPE = "/var/lib/quoradmind/dhcp_fifo";
const std::string FAILED = "ERROR :refresh_dhcp open /var/lib/quoradmind/dhcp_fifo error ";

class Refresh : public WithFiles {
protected:
    void SetUp() override {
        WithFiles::SetUp();
        ASSERT_EQ(mount("tmpfs", "/var/lib", "tmpfs", 0, "mode=755"), 0);
        ASSERT_EQ(mkdir("/var/lib/quoradmind", 0755), 0);
        ASSERT_EQ(mkfifo(PIPE, 0600), 0);
    }
    void TearDown() override { EXPECT_EQ(umount("/var/lib"), 0); }
    static OwnedFd reader() { return OwnedFd(open(PIPE, O_RDONLY | O_NONBLOCK | O_CLOEXEC)); }
};

TEST_F(Refresh, WithoutAReaderOrSpaceItIsALine) {
    refresh_dhcp();
    EXPECT_THAT(logged(), HasSubstr(FAILED + "No such device or address\n"));
    {
        const OwnedFd pipe = reader();
        const OwnedFd writer(open(PIPE, O_WRONLY | O_NONBLOCK | O_CLOEXEC));
        while (write(writer.get(), "x", 1) == 1) {}
        refresh_dhcp();
        EXPECT_THAT(logged(), HasSubstr(FAILED + "Resource temporarily unavailable\n"));
    }
}

TEST_F(Refresh, AReaderThatHasJustLeftKillsNobody) {
    std::atomic<bool> done = false;
    std::thread restless([&] {
        while (!done) {
            (void)reader();
        }
    });
    EXPECT_TRUE(eventually([] {
        for (int n = 0; n < 100; ++n) {
            refresh_dhcp();
        }
        return logged().find(FAILED + "Broken pipe\n") != std::string::npos;
    }));
    done = true;
    restless.join();
    sigset_t signals;
    ASSERT_EQ(pthread_sigmask(SIG_BLOCK, nullptr, &signals), 0);
    EXPECT_EQ(sigismember(&signals, SIGPIPE), 0);
}

}  // namespace
