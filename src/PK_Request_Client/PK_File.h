// A file or block device that is read and written at offsets, in bytes or 512-byte sectors.
//
// One thread at a time. Every open logs its success and its failure, and so does an operation
// without an open file.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>

class PK_File {
public:
    PK_File() = default;
    PK_File(const PK_File&) = delete;
    PK_File& operator=(const PK_File&) = delete;
    virtual ~PK_File() { (void)Close(); }

    // Opens an existing file for reading and writing. 0; -1 when it cannot be opened, -2 when its
    // size cannot be found. An object that holds a file keeps it.
    int OpenRW(const char* path);

    // The same, creating the file when missing (`sectors` passes for its permission bits, as it
    // always has), and cutting or extending it to `sectors` when that is above 0.
    int OpenRwAlwaysSetSize(const char* path, std::int64_t sectors);

    // Opens an emptied file that only its new contents will fill: created with 0664 less the umask,
    // and never through a symbolic link. What is there must be an ordinary file of this user with
    // one name: another user could change what is written to his own. Result and messages are those
    // of OpenRwAlwaysSetSize.
    int OpenRwEmpty(const char* path);

    // Closes and forgets path and size. 0, or -1 when no file is held.
    int Close();

    // One transfer of `count` bytes at `offset` (bytes): the number of bytes done, possibly fewer,
    // or -1 with errno.
    ssize_t Read(void* buffer, std::size_t count, std::int64_t offset);
    ssize_t Write(const void* buffer, std::size_t count, std::int64_t offset);

    // The same in sectors; the result is in bytes.
    ssize_t ReadSec(void* buffer, std::size_t sectors, std::int64_t sector_offset);
    ssize_t WriteSec(const void* buffer, std::size_t sectors, std::int64_t sector_offset);

    // The size of an ordinary file in bytes; 0 for a block device, on purpose; -1 without a file,
    // -2 when it cannot be found.
    std::int64_t GetSize();

    // Copies the path, cut and terminated, into `buffer` of `size` bytes.
    void GetPath(char* buffer, std::size_t size) const;

    // The size in whole sectors as of the open, or as writing has raised it.
    std::int64_t size_in_sectors() const { return size_; }

    static constexpr int KIND_UNKNOWN = -1;
    static constexpr int KIND_FILE = 1;
    static constexpr int KIND_DEVICE = 2;
    int kind() const { return kind_; }

private:
    int open_with(const char* path, int flags, unsigned mode, const char* function);
    int find_size(const char* path, const char* function);
    bool is_open(const char* operation) const;
    bool is_ours_alone() const;

    int fd_ = -1;
    std::int64_t size_ = 0;
    int kind_ = KIND_UNKNOWN;
    std::array<char, 266> path_{};
};
