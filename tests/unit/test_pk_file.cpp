#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>

#include "PK_Request_Client/PK_File.h"
#include "support.h"

namespace {

using testing::HasSubstr;

constexpr std::size_t SECTOR = 512;
constexpr const char* PATH = "/etc/quoradmind/disk";

class SectorFile : public WithFiles {
protected:
    std::string path_in(std::size_t size) const {
        std::string buffer(size, '-');
        file.GetPath(buffer.data(), size);
        return buffer.substr(0, buffer.find('\0'));
    }
    static unsigned mode_of(const char* path) {
        struct stat status {};
        return stat(path, &status) == 0 ? status.st_mode & 07777U : ~0U;
    }
    PK_File file;
};

TEST_F(SectorFile, AnExistingFileAsItIs) {
    EXPECT_EQ(file.OpenRW(PATH), -1);
    EXPECT_THAT(logged(), HasSubstr("ERROR :open ("s + PATH +
                                    ") error:No such file or directory --OpenRW--"));
    const std::string text(2 * SECTOR + 1, 't');
    write_file(PATH, text);
    EXPECT_EQ(file.OpenRW(PATH), 0);
    EXPECT_THAT(logged(), HasSubstr("INFO :OpenRW ("s + PATH + ") ok SizeSec:2\n"));
    EXPECT_EQ(file.size_in_sectors(), 2);
    EXPECT_EQ(file.kind(), PK_File::KIND_FILE);
    EXPECT_EQ(file.GetSize(), static_cast<std::int64_t>(text.size()));
    EXPECT_EQ(path_in(100), PATH);
    EXPECT_EQ(path_in(5), "/etc");

    // An object that holds a file keeps it.
    write_file("/etc/quoradmind/other", "other");
    EXPECT_EQ(file.OpenRW("/etc/quoradmind/other"), 0);
    EXPECT_EQ(file.Write("new", 3, 1), 3);
    EXPECT_EQ(contents("/etc/quoradmind/other"), "other");
    EXPECT_EQ(contents(PATH), "tnew" + text.substr(4));

    EXPECT_EQ(file.Close(), 0);
    EXPECT_EQ(file.size_in_sectors(), 0);
    EXPECT_EQ(path_in(100), "");
    EXPECT_EQ(file.Close(), -1);
}

TEST_F(SectorFile, AFileOfAGivenSize) {
    constexpr int SECTORS = 0640;  // is its mode, too, when the file is made
    EXPECT_EQ(file.OpenRwAlwaysSetSize(PATH, SECTORS), 0);
    EXPECT_EQ(file.size_in_sectors(), SECTORS);
    EXPECT_EQ(file.GetSize(), SECTORS * static_cast<std::int64_t>(SECTOR));
    EXPECT_EQ(mode_of(PATH), 0640U);
    EXPECT_EQ(file.Write("kept", 4, SECTOR), 4);
    file.Close();
    EXPECT_EQ(file.OpenRwAlwaysSetSize(PATH, 2), 0);
    EXPECT_EQ(contents(PATH).substr(SECTOR), "kept" + std::string(SECTOR - 4, '\0'));
    file.Close();
    EXPECT_EQ(file.OpenRwAlwaysSetSize(PATH, 0), 0);  // the size stays
    EXPECT_EQ(file.size_in_sectors(), 2);
    EXPECT_THAT(logged(), HasSubstr("INFO :open ("s + PATH + ") ok \n"));
    EXPECT_THAT(logged(), HasSubstr("INFO :OpenRwAlwaysSetSize ("s + PATH + ") ok SizeSec:2\n"));

    PK_File device;  // one that has no size to set
    EXPECT_EQ(device.OpenRwAlwaysSetSize("/dev/null", 1), 0);
    EXPECT_THAT(logged(), HasSubstr("ERROR :ftruncate (/dev/null) error:Invalid argument "
                                    "--OpenRwAlwaysSetSize--"));
    EXPECT_EQ(device.size_in_sectors(), 0);
    PK_File none;
    EXPECT_EQ(none.OpenRwAlwaysSetSize("/etc/quoradmind", 0), -1);
    EXPECT_THAT(logged(), HasSubstr("ERROR :open (/etc/quoradmind) error:Is a directory "
                                    "--OpenRwAlwaysSetSize--"));
}

TEST_F(SectorFile, SectorsAndBytesAreTheSameFile) {
    ASSERT_EQ(file.OpenRwEmpty(PATH), 0);
    EXPECT_EQ(mode_of(PATH), 0644U);
    const std::string two = std::string(SECTOR, '1') + std::string(SECTOR, '2');
    EXPECT_EQ(file.WriteSec(two.data(), 2, 3), static_cast<ssize_t>(two.size()));
    EXPECT_EQ(file.size_in_sectors(), 5);
    EXPECT_EQ(file.WriteSec(two.data(), 1, 0), static_cast<ssize_t>(SECTOR));
    EXPECT_EQ(file.size_in_sectors(), 5);  // never lowered
    EXPECT_EQ(contents(PATH), two.substr(0, SECTOR) + std::string(2 * SECTOR, '\0') + two);

    std::string buffer(3 * SECTOR, '-');
    EXPECT_EQ(file.ReadSec(buffer.data(), 3, 4), static_cast<ssize_t>(SECTOR));  // to the end
    EXPECT_EQ(buffer, two.substr(SECTOR) + std::string(2 * SECTOR, '-'));
    EXPECT_EQ(file.Read(buffer.data(), 4, 4 * SECTOR - 2), 4);
    EXPECT_EQ(buffer.substr(0, 4), "1122");
    EXPECT_EQ(file.Read(buffer.data(), 4, 5 * SECTOR), 0);

    // Beyond two and four gigabytes, where a 32-bit offset would come round to the beginning.
    constexpr std::int64_t FAR = (std::int64_t{1} << 23U) + 1;
    EXPECT_EQ(file.WriteSec(two.data(), 1, FAR), static_cast<ssize_t>(SECTOR));
    EXPECT_EQ(file.size_in_sectors(), FAR + 1);
    EXPECT_EQ(file.GetSize(), (FAR + 1) * static_cast<std::int64_t>(SECTOR));
    EXPECT_EQ(file.Read(buffer.data(), 2, FAR * 512), 2);
    EXPECT_EQ(buffer.substr(0, 2), "11");
}

TEST_F(SectorFile, WithoutAFileNothingIsDone) {
    char byte = 0;
    EXPECT_EQ(file.Read(&byte, 1, 0), -1);
    EXPECT_EQ(file.Write(&byte, 1, 0), -1);
    EXPECT_EQ(file.ReadSec(&byte, 1, 0), -1);
    EXPECT_EQ(file.WriteSec(&byte, 1, 9), -1);
    EXPECT_EQ(file.GetSize(), -1);
    EXPECT_EQ(file.size_in_sectors(), 0);
    EXPECT_EQ(file.kind(), PK_File::KIND_UNKNOWN);
    for (const char* operation : {"Read", "Write", "ReadSec", "WriteSec"}) {
        EXPECT_THAT(logged(), HasSubstr("INFO :"s + operation + " () nFilefd:-1\n"));
    }
}

TEST_F(SectorFile, ALongPathIsRememberedCut) {
    std::string path = "/etc/quoradmind/";
    for (int n = 0; n < 130; ++n) {
        path += "./";
    }
    path += "disk";
    EXPECT_EQ(file.OpenRwAlwaysSetSize(path.c_str(), 0), 0);
    EXPECT_TRUE(std::filesystem::exists(PATH));
    EXPECT_EQ(path_in(300), path.substr(0, 266));
    EXPECT_EQ(path_in(267), path.substr(0, 266));
    EXPECT_EQ(path_in(266), path.substr(0, 265));
    file.GetPath(nullptr, 0);
}

// A block device that is a file. The kernel detaches it with its last descriptor, however this
// process ends.
class LoopDevice {
public:
    explicit LoopDevice(const char* backing) {
        const OwnedFd file(open(backing, O_RDWR | O_CLOEXEC));
        const OwnedFd control(open("/dev/loop-control", O_RDWR | O_CLOEXEC));
        for (int attempt = 0; attempt < 20 && !fd_.valid(); ++attempt) {
            const int number = control.valid() ? ioctl(control.get(), LOOP_CTL_GET_FREE) : -1;
            path_ = "/dev/loop" + std::to_string(number);
            fd_.reset(open(path_.c_str(), O_RDWR | O_CLOEXEC));
            loop_config config{};
            config.fd = static_cast<std::uint32_t>(file.get());
            config.info.lo_flags = LO_FLAGS_AUTOCLEAR;
            if (fd_.valid() && ioctl(fd_.get(), LOOP_CONFIGURE, &config) != 0) {
                fd_.reset();  // somebody else was faster, or it is not allowed here
            }
        }
    }
    bool valid() const { return fd_.valid(); }
    const char* path() const { return path_.c_str(); }
    void flush() const { EXPECT_EQ(fsync(fd_.get()), 0); }

private:
    std::string path_;
    OwnedFd fd_;
};

TEST_F(SectorFile, ABlockDevice) {
    constexpr const char* BACKING = "/etc/quoradmind/backing";
    write_file(BACKING, std::string(8 * SECTOR, 'b'));
    const LoopDevice device(BACKING);
    if (!device.valid()) {
        GTEST_SKIP() << "no loop device can be had";
    }
    ASSERT_EQ(file.OpenRW(device.path()), 0);
    EXPECT_EQ(file.kind(), PK_File::KIND_DEVICE);
    EXPECT_EQ(file.size_in_sectors(), 8);
    EXPECT_EQ(file.GetSize(), 0);  // as its callers know it
    const std::string sector(SECTOR, 's');
    EXPECT_EQ(file.WriteSec(sector.data(), 1, 7), static_cast<ssize_t>(SECTOR));
    EXPECT_EQ(file.WriteSec(sector.data(), 1, 8), -1);
    EXPECT_EQ(errno, ENOSPC);
    device.flush();
    EXPECT_EQ(contents(BACKING), std::string(7 * SECTOR, 'b') + sector);
    std::string buffer(2 * SECTOR, '-');
    EXPECT_EQ(file.ReadSec(buffer.data(), 2, 6), static_cast<ssize_t>(buffer.size()));
    EXPECT_EQ(buffer, std::string(SECTOR, 'b') + sector);
    file.Close();

    EXPECT_EQ(file.OpenRwAlwaysSetSize(device.path(), 4), 0);  // its size cannot be set
    EXPECT_THAT(logged(), HasSubstr("ERROR :ftruncate ("s + device.path() + ") error:"));
    EXPECT_EQ(file.size_in_sectors(), 8);
}

}  // namespace
