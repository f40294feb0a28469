// Putting an empty database in the place of another one, whole at every moment.
#include <db.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "flush.h"
#include "log.h"
#include "store.h"
#include "store_check.h"
#include "store_handle.h"

namespace {

// What a creation of `fresh` leaves behind when it is killed or fails. Nobody else is at work on it
// while the file that it is to replace is locked.
void remove_remains(const std::string& fresh) {
    (void)unlink(fresh.c_str());
    (void)unlink(creation_of(fresh).c_str());
}

// Creates the empty database `fresh`. 0 or the library's error code; then nothing is left of it.
int create_empty(const std::string& fresh, mode_t mode) {
    remove_remains(fresh);
    const int result = create_database(fresh, static_cast<int>(mode & 0777U));
    if (result != 0) {
        remove_remains(fresh);
    }
    return result;
}

// Whether the file, which is locked and sound, has any record.
bool has_records(const StoreLock& lock) {
    DB* db = create_handle(0);
    if (db == nullptr) {
        return true;
    }
    DBC* cursor = nullptr;
    DBT key{};
    DBT value{};
    key.flags = value.flags = DB_DBT_PARTIAL;  // none of its bytes
    bool found = true;
    if (db->open(db, nullptr, lock.path().c_str(), nullptr, DB_HASH, DB_RDONLY, 0) == 0 &&
        db->cursor(db, nullptr, &cursor, 0) == 0) {
        found = cursor->get(cursor, &key, &value, DB_FIRST) != DB_NOTFOUND;
        (void)cursor->close(cursor);
    }
    (void)db->close(db, 0);
    return found;
}

void copy_mode_and_owner(const std::string& target, const struct stat& model) {
    (void)chmod(target.c_str(), model.st_mode & 07777U);
    (void)!chown(target.c_str(), model.st_uid, model.st_gid);
}

// A second name, not a rename: the path itself must never be without a file.
void keep_damaged(const StoreLock& lock) {
    const std::string kept = lock.path() + ".damaged";
    (void)unlink(kept.c_str());
    if (link(lock.path().c_str(), kept.c_str()) == 0) {
        log_message(msg::DAMAGED_STORE_KEPT, lock.path().c_str(), kept.c_str());
    } else {
        log_message(msg::DAMAGED_STORE_LOST, lock.path().c_str(), kept.c_str(), strerror(errno));
    }
}

// A list that cannot be kept is given up: one that is never renewed would be worse.
void keep_previous(const StoreLock& lock, const char* previous) {
    if (has_records(lock) && link(lock.path().c_str(), previous) != 0 && errno != EEXIST) {
        log_message(msg::PREVIOUS_LIST_NOT_KEPT, lock.path().c_str(), previous, strerror(errno));
    }
}

}  // namespace

bool db_replace_empty(const char* path, const char* previous) {
    StoreLock lock(path);
    if (!lock.exists()) {
        lock.release();
        const std::unique_ptr<Store> created = db_open(path);
        return created && created->usable();
    }
    struct stat old {};
    (void)fstat(lock.fd(), &old);
    const std::string fresh = lock.path() + ".new";
    if (const int result = create_empty(fresh, old.st_mode); result != 0) {
        log_message(msg::STORE_NOT_EMPTIED, path, db_strerror(result));
        return false;
    }
    copy_mode_and_owner(fresh, old);
    if (is_damage(verify_store(lock))) {
        keep_damaged(lock);
    } else if (previous != nullptr) {
        keep_previous(lock, previous);
    }
    if (rename(fresh.c_str(), path) != 0) {
        log_message(msg::STORE_NOT_EMPTIED, path, strerror(errno));
        remove_remains(fresh);
        return false;
    }
    flush_directory_of(path);
    return true;
}
