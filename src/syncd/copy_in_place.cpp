#include "copy_in_place.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "flush.h"
#include "log.h"
#include "store_lock.h"

namespace {

// Locked: a reader that finds no copy creates an empty one, which must not come after ours.
bool rename_over(const std::string& source, const std::string& target) {
    const StoreLock lock(target.c_str());
    return rename(source.c_str(), target.c_str()) == 0;
}

// A rename does not reach across file systems; a copy beside the target can be renamed.
bool copy_beside(const std::string& download, const std::string& beside) {
    std::error_code failure;
    std::filesystem::remove(beside, failure);
    if (!std::filesystem::copy_file(download, beside, failure)) {
        errno = failure.value();
        return false;
    }
    return true;
}

}  // namespace

bool put_copy_in_place(const std::string& download, const std::string& target) {
    if (flush_file(download) && rename_over(download, target)) {
        return true;
    }
    const std::string beside = target + ".new";
    if (errno == EXDEV && copy_beside(download, beside) && flush_file(beside) &&
        rename_over(beside, target)) {
        (void)unlink(download.c_str());
        return true;
    }
    log_message(msg::COPY_NOT_PUT_IN_PLACE, target.c_str(), strerror(errno));
    (void)unlink(beside.c_str());
    return false;
}
