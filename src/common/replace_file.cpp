#include "replace_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "owned.h"

namespace {

int flush(const std::string& path, int flags) {
    const OwnedFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | flags));
    return fd.valid() && fsync(fd.get()) == 0 ? 0 : errno;
}

}  // namespace

int rename_file(const std::string& from, const std::string& to) {
    return std::rename(from.c_str(), to.c_str()) == 0 ? 0 : errno;
}

int flush_directory_of(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return flush(slash == std::string::npos ? "." : path.substr(0, slash + 1), O_DIRECTORY);
}

Replacement move_in_place(const std::string& source, const std::string& target,
                          const RenameFile& rename) {
    if (const int unflushed = flush(source, 0); unflushed != 0) {
        return {false, unflushed};
    }
    if (const int refused = rename(source, target); refused != 0) {
        return {false, refused};
    }
    return {true, flush_directory_of(target)};
}

Replacement replace_file(const std::string& target, const FillFile& fill,
                         const RenameFile& rename) {
    return replace_file_by(target + ".new", target, fill, rename);
}

Replacement replace_file_by(const std::string& fresh, const std::string& target,
                            const FillFile& fill, const RenameFile& rename) {
    // Left by a process that was killed. What cannot be removed would be filled as it is.
    if (unlink(fresh.c_str()) != 0 && errno != ENOENT) {
        return {false, errno};
    }
    const int unfilled = fill(fresh);
    const Replacement result =
        unfilled == 0 ? move_in_place(fresh, target, rename) : Replacement{false, unfilled};
    if (!result.in_place) {
        (void)unlink(fresh.c_str());  // otherwise the next replacement does it
    }
    return result;
}
