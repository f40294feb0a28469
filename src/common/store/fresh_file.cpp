#include "common/store/fresh_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

#include "common/store/lock.h"

namespace {

constexpr uid_t UNCHANGED = static_cast<uid_t>(-1);

// Writers without a lock are rare: two at a time are already more than was ever seen.
constexpr const char* ENDINGS[] = {".changed", ".changed2", ".changed3", ".changed4"};

// Removes what a killed writer has left: a living one has its file locked.
void remove_leftover(const std::string& path) {
    const OwnedFd left(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (left.valid() && flock(left.get(), LOCK_EX | LOCK_NB) == 0) {
        (void)unlink(path.c_str());  // the name stays taken, and is told as such
    }
}

}  // namespace

FreshFile::FreshFile(const std::string& target, mode_t mode) {
    for (const char* ending : ENDINGS) {
        remove_leftover(target + ending);
        if (!file_.valid() && create(target + ending, mode)) {
            path_ = target + ending;
        }
    }
    error_ = file_.valid() ? 0 : error_;
}

FreshFile::~FreshFile() {
    if (!path_.empty()) {
        (void)unlink(path_.c_str());  // otherwise the next writer does it
    }
}

bool FreshFile::create(const std::string& path, mode_t mode) {
    struct stat created {};
    do {
        file_.reset(open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, mode));
        error_ = file_.valid() ? 0 : errno;
        // Before it was locked, another writer may have taken it for a leftover.
    } while (file_.valid() && (flock(file_.get(), LOCK_EX) != 0 ||
                               fstat(file_.get(), &created) != 0 || created.st_nlink == 0));
    if (file_.valid()) {
        mark_flock(file_.get());
    }
    return file_.valid();
}

int copy_mode_and_owner(int target, const struct stat& model) {
    struct stat made {};
    if (fstat(target, &made) != 0) {
        return errno;
    }
    // A file system without owners, or an ordinary user's own file, has the right one already.
    const bool same = made.st_uid == model.st_uid && made.st_gid == model.st_gid;
    const int refused = same || fchown(target, model.st_uid, model.st_gid) == 0 ? 0 : errno;
    const bool group = refused == 0 || fchown(target, UNCHANGED, model.st_gid) == 0;
    // What the model allows its owner or group is not for any other.
    const mode_t kept = refused == 0 ? 07777U : group ? 01777U : 01707U;
    const int failed = fchmod(target, model.st_mode & kept) == 0 ? 0 : errno;
    return refused != 0 ? refused : failed;
}
