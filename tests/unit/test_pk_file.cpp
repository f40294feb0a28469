#include <sys/stat.h>

#include <algorithm>

#include "PK_Request_Client/PK_File.h"
#include "support.h"

namespace {

using testing::HasSubstr;

constexpr std::size_t SECTOR = 512;
constexpr const char* PATH = "/etc/quoradmind/disk";

class SectorFile : public WithFiles {
protected:
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

    // An object that holds a file keeps it.
    write_file("/etc/quoradmind/other", "other");
    EXPECT_EQ(file.OpenRW("/etc/quoradmind/other"), 0);
    EXPECT_EQ(file.Write("new", 3, 1), 3);
    EXPECT_EQ(contents("/etc/quoradmind/other"), "other");
    EXPECT_EQ(contents(PATH), "tnew" + text.substr(4));

    EXPECT_EQ(file.Close(), 0);
    EXPECT_EQ(file.size_in_sectors(), 0);
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
    EXPECT_THAT(logged(), HasSubstr("INFO :OpenRwAlwaysSetSize ("s + PATH + ") ok SizeSec:2\n"));
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

// The path that it remembers is cut, and the caller's copy once more.
TEST_F(SectorFile, WithoutAFileNothingIsDoneAndALongPathIsCut) {
    char byte = 0;
    EXPECT_EQ(file.Read(&byte, 1, 0), -1);
    EXPECT_EQ(file.WriteSec(&byte, 1, 9), -1);
    EXPECT_EQ(file.GetSize(), -1);
    EXPECT_EQ(file.kind(), PK_File::KIND_UNKNOWN);
    EXPECT_THAT(logged(), HasSubstr("INFO :Read () nFilefd:-1\n"));

    std::string path = "/etc/quoradmind/";
    while (path.size() < 270) {
        path += "./";
    }
    path += "disk";
    EXPECT_EQ(file.OpenRwAlwaysSetSize(path.c_str(), 0), 0);
    EXPECT_TRUE(std::filesystem::exists(PATH));
    for (const std::size_t size : {300U, 267U, 266U}) {
        std::string buffer(size, '-');
        file.GetPath(buffer.data(), size);
        EXPECT_EQ(buffer.c_str(), path.substr(0, std::min<std::size_t>(size - 1, 266)));
    }
}

}  // namespace
