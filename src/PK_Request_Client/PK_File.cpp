#include "PK_File.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "log.h"

namespace {

constexpr int SECTOR_SHIFT = 9;
constexpr unsigned ORDINARY_MODE = 0664;

std::int64_t bytes_of(std::int64_t sectors) {
    return sectors * (std::int64_t{1} << SECTOR_SHIFT);
}

}  // namespace

int PK_File::open_with(const char* path, int flags, unsigned mode, const char* function) {
    if (fd_ >= 0) {
        return 0;
    }
    fd_ = open(path, O_RDWR | O_CLOEXEC | flags, mode);
    if (fd_ < 0) {
        log_message(msg::FILE_NOT_OPENED, path, strerror(errno), function, __LINE__);
        return -1;
    }
    if ((flags & O_CREAT) != 0) {
        log_message(msg::FILE_CREATED, path);
    }
    return 0;
}

// Fills kind and size and remembers the path.
int PK_File::find_size(const char* path, const char* function) {
    std::uint64_t bytes = 0;
    if (ioctl(fd_, BLKGETSIZE64, &bytes) == 0) {
        kind_ = KIND_DEVICE;
    } else {
        struct stat status {};
        if (fstat(fd_, &status) != 0) {
            log_message(msg::NO_FILE_SIZE, path, strerror(errno), function, __LINE__);
            return -2;
        }
        kind_ = KIND_FILE;
        bytes = static_cast<std::uint64_t>(status.st_size);
    }
    size_ = static_cast<std::int64_t>(bytes >> SECTOR_SHIFT);
    path_.fill('\0');
    std::memcpy(path_.data(), path, strnlen(path, path_.size()));
    log_message(msg::FILE_SIZE, function, path, static_cast<long>(size_));
    return 0;
}

int PK_File::OpenRW(const char* path) {
    const int opened = open_with(path, 0, 0, "OpenRW");
    return opened != 0 ? opened : find_size(path, "OpenRW");
}

int PK_File::OpenRwAlwaysSetSize(const char* path, std::int64_t sectors) {
    constexpr const char* FUNCTION = "OpenRwAlwaysSetSize";
    if (open_with(path, O_CREAT, static_cast<unsigned>(sectors), FUNCTION) != 0) {
        return -1;
    }
    if (sectors > 0) {
        if (ftruncate(fd_, bytes_of(sectors)) != 0) {
            log_message(msg::FILE_SIZE_NOT_SET, path, strerror(errno), FUNCTION, __LINE__);
        } else {
            size_ = sectors;
        }
    }
    return find_size(path, FUNCTION);
}

// Looked at only when it is open: before, its name may still come to stand for another file.
bool PK_File::is_ours_alone() const {
    struct stat status {};
    return fstat(fd_, &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == geteuid() &&
           status.st_nlink == 1;
}

int PK_File::OpenRwEmpty(const char* path) {
    constexpr const char* FUNCTION = "OpenRwAlwaysSetSize";
    if (open_with(path, O_CREAT | O_NOFOLLOW, ORDINARY_MODE, FUNCTION) != 0) {
        return -1;
    }
    if (!is_ours_alone()) {
        log_message(msg::FILE_NOT_OURS, path);
        (void)Close();
        return -1;
    }
    if (ftruncate(fd_, 0) != 0) {
        log_message(msg::FILE_SIZE_NOT_SET, path, strerror(errno), FUNCTION, __LINE__);
        (void)Close();
        return -1;
    }
    return find_size(path, FUNCTION);
}

int PK_File::Close() {
    path_.fill('\0');
    size_ = 0;
    if (fd_ < 0) {
        return -1;
    }
    (void)close(fd_);
    fd_ = -1;
    return 0;
}

bool PK_File::is_open(const char* operation) const {
    if (fd_ < 1) {  // descriptor 0 counts as not open
        log_message(msg::FILE_NOT_OPEN, operation, static_cast<int>(path_.size()), path_.data(),
                    fd_);
        return false;
    }
    return true;
}

ssize_t PK_File::Read(void* buffer, std::size_t count, std::int64_t offset) {
    return is_open("Read") ? pread(fd_, buffer, count, offset) : -1;
}

ssize_t PK_File::Write(const void* buffer, std::size_t count, std::int64_t offset) {
    return is_open("Write") ? pwrite(fd_, buffer, count, offset) : -1;
}

ssize_t PK_File::ReadSec(void* buffer, std::size_t sectors, std::int64_t sector_offset) {
    return is_open("ReadSec") ? pread(fd_, buffer, sectors << SECTOR_SHIFT, bytes_of(sector_offset))
                              : -1;
}

ssize_t PK_File::WriteSec(const void* buffer, std::size_t sectors, std::int64_t sector_offset) {
    if (!is_open("WriteSec")) {
        return -1;
    }
    size_ = std::max(size_, sector_offset + static_cast<std::int64_t>(sectors));
    return pwrite(fd_, buffer, sectors << SECTOR_SHIFT, bytes_of(sector_offset));
}

std::int64_t PK_File::GetSize() {
    if (fd_ < 1) {
        return -1;
    }
    std::uint64_t device_bytes = 0;
    if (ioctl(fd_, BLKGETSIZE64, &device_bytes) == 0) {
        return 0;  // not the device's size: callers rely on the difference
    }
    struct stat status {};
    if (fstat(fd_, &status) != 0) {
        log_message(msg::NO_OPEN_FILE_SIZE, static_cast<int>(path_.size()), path_.data(),
                    strerror(errno), "GetSize", __LINE__);
        return -2;
    }
    return status.st_size;
}

void PK_File::GetPath(char* buffer, std::size_t size) const {
    if (size == 0) {
        return;
    }
    const std::size_t length = std::min(strnlen(path_.data(), path_.size()), size - 1);
    std::memcpy(buffer, path_.data(), length);
    buffer[length] = '\0';
}
