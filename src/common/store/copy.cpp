// Finished files that take the place of a database file.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>

#include "common/store/check.h"
#include "common/store/lock.h"
#include "log.h"
#include "owned.h"
#include "replace_file.h"
#include "store.h"

int db_rename_over(const std::string& source, const std::string& target,
                   const std::function<void()>& renamed) {
    StoreLock lock(target.c_str());
    lock.announce_change();
    const int result = rename_file(source, target);
    if (result == 0 && renamed) {
        renamed();
    }
    return result;
}

std::string put_copy_in_place(const std::string& download, const std::string& target,
                              Download kind) {
    const auto keep_it_sound = [&target] {
        const OwnedFd fd(open(target.c_str(), O_RDONLY | O_CLOEXEC));
        keep_verdict(fd.get(), target);
    };
    // Only the rename waits for the lock: the flush would keep heartbeats from the file.
    const auto rename = [&](const std::string& from, const std::string& to) {
        return db_rename_over(
            from, to, kind == Download::SOUND_DATABASE ? keep_it_sound : std::function<void()>());
    };
    Replacement result = move_in_place(download, target, rename);
    // A rename does not reach across file systems; a copy beside the target can be renamed.
    if (!result.in_place && result.error == EXDEV) {
        const auto copy = [&download](const std::string& fresh) {
            std::error_code failure;
            std::filesystem::copy_file(download, fresh, failure);
            return failure.value();
        };
        result = replace_file(target, copy, rename);
        if (result.in_place) {
            (void)unlink(download.c_str());  // what is left is removed before the next download
        }
    }
    if (!result.in_place) {
        return log_failure(msg::COPY_NOT_PUT_IN_PLACE, target.c_str(), strerror(result.error));
    }
    if (result.error != 0) {
        log_message(msg::STORE_NOT_FLUSHED, target.c_str(), strerror(result.error));
    }
    return {};
}
