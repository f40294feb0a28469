// Putting an empty database in the place of another one, whole at every moment.
#include <db.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "common/store/check.h"
#include "common/store/fresh_file.h"
#include "common/store/handle.h"
#include "common/store/lock.h"
#include "log.h"
#include "owned.h"
#include "replace_file.h"
#include "store.h"

namespace {

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

// Creates the empty database `fresh` with mode and owner of the locked file. 0 or the library's
// error code.
int create_empty(const std::string& fresh, const StoreLock& lock) {
    struct stat old {};
    (void)fstat(lock.fd(), &old);
    // Left by a process that was killed: the target is locked, nobody else is at work on it.
    if (unlink(creation_of(fresh).c_str()) != 0 && errno != ENOENT) {
        return errno;
    }
    if (const int result = create_database(fresh, static_cast<int>(old.st_mode & 0777U));
        result != 0) {
        (void)unlink(creation_of(fresh).c_str());  // otherwise the next call does it
        return result;
    }
    const OwnedFd created(open(fresh.c_str(), O_RDONLY | O_CLOEXEC));
    if (const int result = created.valid() ? copy_mode_and_owner(created.get(), old) : errno;
        result != 0) {
        return result;
    }
    if (is_damage(verify_store(lock))) {
        keep_damaged(lock);
    }
    return 0;
}

}  // namespace

bool db_replace_empty(const char* path) {
    StoreLock lock(path);
    if (!lock.exists()) {
        lock.release();
        const std::unique_ptr<Store> created = db_open(path);
        return created && created->usable();
    }
    lock.announce_change();
    const auto fill = [&](const std::string& fresh) {
        return create_empty(fresh, lock);
    };
    const Replacement result = replace_file(lock.path(), fill);
    // After a power failure, an old list whose place was not surely taken would stand under the
    // stamp of the new one.
    const bool emptied = result.in_place && result.error == 0;
    if (!emptied) {
        log_message(msg::STORE_NOT_EMPTIED, path, db_strerror(result.error));
    }
    return emptied;
}

StoreKept db_keep(const char* path, const char* name) {
    const StoreLock lock(path);
    if (lock.error() != 0) {
        log_message(msg::PREVIOUS_LIST_NOT_KEPT, path, name, strerror(lock.error()));
        return StoreKept::NO;
    }
    if (lock.exists() && is_damage(verify_store(lock))) {
        return StoreKept::NO;
    }
    if (!lock.exists() || !has_records(lock)) {
        return StoreKept::NO_RECORDS;
    }
    const bool sound = verdict_known(lock);
    int failed = link(path, name) == 0 ? 0 : errno;
    if (failed == EEXIST && unlink(name) == 0) {
        failed = link(path, name) == 0 ? 0 : errno;
    }
    if (failed != 0) {
        log_message(msg::PREVIOUS_LIST_NOT_KEPT, path, name, strerror(failed));
        return StoreKept::NO;
    }
    if (sound) {
        keep_verdict(lock);  // the second name has changed its time, and nothing else
    }
    return StoreKept::YES;
}
