#include "common/store/unnamed.h"

#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace {

constexpr std::size_t COPY_PIECE = 1U << 30U;

}  // namespace

std::string name_of(const OwnedFd& file) {
    return "/proc/self/fd/" + std::to_string(file.get());
}

bool copy_contents(int from, int to) {
    off_t at = 0;
    ssize_t copied = 0;
    do {
        copied = sendfile(to, from, &at, COPY_PIECE);
    } while (copied > 0 || (copied < 0 && errno == EINTR));
    return copied == 0;
}

bool read_contents(int fd, std::string& contents) {
    struct stat status {};
    if (fstat(fd, &status) != 0) {
        return false;
    }
    contents.resize(static_cast<std::size_t>(status.st_size));
    std::size_t at = 0;
    ssize_t got = 1;
    while (at < contents.size() && got != 0) {
        got = pread(fd, contents.data() + at, contents.size() - at, static_cast<off_t>(at));
        if (got < 0 && errno != EINTR) {
            return false;
        }
        at += got > 0 ? static_cast<std::size_t>(got) : 0;
    }
    contents.resize(at);  // cut off meanwhile
    return true;
}

bool has_contents(int fd, std::string_view contents) {
    std::array<char, 65536> piece{};
    std::size_t at = 0;
    ssize_t got = 0;
    while ((got = pread(fd, piece.data(), piece.size(), static_cast<off_t>(at))) > 0) {
        const std::string_view read(piece.data(), static_cast<std::size_t>(got));
        if (contents.substr(at, read.size()) != read) {
            return false;
        }
        at += read.size();
    }
    return got == 0 && at == contents.size();
}

bool write_contents(int fd, std::string_view contents) {
    while (!contents.empty()) {
        const ssize_t written = write(fd, contents.data(), contents.size());
        if (written < 0 && errno != EINTR) {
            return false;
        }
        contents.remove_prefix(written > 0 ? static_cast<std::size_t>(written) : 0);
    }
    return true;
}
