// Putting an empty database in the place of another one, whole at every moment.
#include <db.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "log.h"
#include "store.h"
#include "store_check.h"
#include "store_handle.h"

namespace {

// Creates an empty database of its own name beside `path`. Empty text on failure.
std::string create_beside(const std::string& path, mode_t mode) {
    const std::string fresh = path + ".new";
    // Of a killed replacement; nobody else is at work on it, as `path` is locked.
    (void)unlink(fresh.c_str());
    (void)unlink(creation_of(fresh).c_str());
    DB* db = create_handle(0);
    if (db == nullptr) {
        return {};
    }
    const int opened = db->open(db, nullptr, fresh.c_str(), nullptr, DB_HASH, DB_CREATE,
                                static_cast<int>(mode & 0777U));
    const int closed = db->close(db, 0);
    return opened == 0 && closed == 0 ? fresh : std::string();
}

void copy_mode_and_owner(const std::string& target, const struct stat& model) {
    (void)chmod(target.c_str(), model.st_mode & 07777U);
    (void)!chown(target.c_str(), model.st_uid, model.st_gid);
}

void sync_directory_of(const std::string& path) {
    const OwnedFd directory(
        open(path.substr(0, path.rfind('/') + 1).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory.valid()) {
        (void)fsync(directory.get());
    }
}

// A second name, not a rename: the path itself must never be without a file.
void keep_damaged(const StoreLock& lock) {
    const std::string kept = lock.path() + ".damaged";
    (void)unlink(kept.c_str());
    if (link(lock.path().c_str(), kept.c_str()) == 0) {
        write_log(LOG_ERROR, "%s is damaged, kept as %s", lock.path().c_str(), kept.c_str());
    }
}

}  // namespace

bool db_replace_empty(const char* path) {
    StoreLock lock(path);
    if (!lock.exists()) {
        lock.release();
        const std::unique_ptr<Store> created = db_open(path);
        return created && created->usable();
    }
    struct stat old {};
    (void)fstat(lock.fd(), &old);
    const std::string fresh = create_beside(path, old.st_mode);
    if (fresh.empty()) {
        write_log(LOG_ERROR, "%s cannot be emptied:%s", path, strerror(errno));
        return false;
    }
    copy_mode_and_owner(fresh, old);
    if (is_damage(verify_store(lock))) {
        keep_damaged(lock);
    }
    if (rename(fresh.c_str(), path) != 0) {
        write_log(LOG_ERROR, "%s cannot be emptied:%s", path, strerror(errno));
        return false;
    }
    sync_directory_of(path);
    return true;
}
