// Finished files that take the place of a database file.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>

#include "common/store/check.h"
#include "common/store/fresh_file.h"
#include "common/store/lock.h"
#include "common/store/unnamed.h"
#include "log.h"
#include "owned.h"
#include "replace_file.h"
#include "store.h"
#include "store_backup.h"

namespace {

int give_mode_and_owner(int copy, const struct stat& model) {
    const int result = copy_mode_and_owner(copy, model);
    return result == EPERM && geteuid() != 0 ? 0 : result;
}

// Fills and verifies `copy`. 0 or the library's error code.
int fill_copy(const FreshFile& copy, const std::string& source) {
    if (copy.error() != 0) {
        return copy.error();
    }
    const StoreLock lock(source.c_str());
    if (lock.error() != 0 || lock.refused()) {
        return lock.error() != 0 ? lock.error() : EBUSY;
    }
    if (!lock.exists()) {
        return ENOENT;
    }
    return copy_contents(lock.fd(), copy.fd()) ? db_verify(copy.path().c_str()) : errno;
}

}  // namespace

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

std::string db_copy(const std::string& source, const std::string& target) {
    constexpr mode_t NEW_STORE = 0664;  // as any access creates one
    std::error_code unknown;
    const std::filesystem::path linked = std::filesystem::weakly_canonical(target, unknown);
    const std::string place = unknown ? target : linked.string();
    struct stat replaced {};
    const bool is_new = stat(place.c_str(), &replaced) != 0;
    FreshFile copy(place, is_new ? NEW_STORE : 0600);
    int result = fill_copy(copy, source);
    if (result == 0 && !is_new) {
        result = give_mode_and_owner(copy.fd(), replaced);
    }
    if (result != 0) {
        return store_error_text(result);
    }
    std::string failure = put_copy_in_place(copy.path(), place, Download::SOUND_DATABASE);
    if (failure.empty()) {
        copy.keep();
    }
    return failure;
}

std::string db_back_up(const std::string& source, const std::string& target) {
    FreshFile copy(target);
    if (const int result = fill_copy(copy, source); result != 0) {
        return store_error_text(result);
    }
    const Replacement moved = move_in_place(copy.path(), target, rename_file);
    if (moved.in_place) {
        copy.keep();
    }
    return moved.error == 0 ? "" : strerror(moved.error);
}
