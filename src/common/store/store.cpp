#include "store.h"

#include <db.h>

#include <cerrno>

#include "common/store/change.h"
#include "common/store/check.h"
#include "common/store/handle.h"
#include "common/store/lock.h"
#include "log.h"

namespace {

DBT dbt_of(std::string_view text) {
    DBT dbt{};
    dbt.data = const_cast<char*>(text.data());  // the library only reads it
    dbt.size = static_cast<u_int32_t>(text.size());
    return dbt;
}

std::string_view text_in(const DBT& dbt) {
    return {static_cast<const char*>(dbt.data), dbt.size};
}

int open_file(StoreLock& lock, DB* db) {
    if (const int missing = ensure_file(lock); missing != 0) {
        return missing;
    }
    if (const int damaged = verify_store(lock); damaged != 0) {
        return damaged;
    }
    const std::uint32_t flags = store_use() == StoreUse::INSPECT ? DB_RDONLY : 0;
    return db->open(db, nullptr, lock.path().c_str(), nullptr, DB_HASH, flags, 0);
}

}  // namespace

std::unique_ptr<Store> db_open(const char* path, std::uint32_t cache_bytes) {
    return Store::open(std::make_unique<StoreLock>(path), cache_bytes);
}

std::unique_ptr<Store> db_open_present(const char* path) {
    auto lock = std::make_unique<StoreLock>(path);
    if (!lock->exists() && lock->error() == 0) {
        return nullptr;
    }
    return Store::open(std::move(lock), 0);
}

std::unique_ptr<Store> Store::open(std::unique_ptr<StoreLock> lock, std::uint32_t cache_bytes) {
    DB* db = create_handle(cache_bytes);
    if (db == nullptr) {
        log_message(msg::NO_STORE_HANDLE, db_strerror(1));  // never the real code, as ever
        return nullptr;
    }
    const int result = open_file(*lock, db);
    std::unique_ptr<Store> store(new Store(lock->path().c_str(), db, result));
    store->lock_ = std::move(lock);
    store->batch_ = cache_bytes != 0;
    return store;
}

std::string open_failure(const std::unique_ptr<Store>& store) {
    return store ? store->failure() : message_text(msg::NO_STORE_HANDLE, db_strerror(1));
}

Store::Store(const char* path, DB* db, int open_result)
    : db_(db), usable_(open_result == 0), damaged_(is_damage(open_result)) {
    if (!usable_) {
        failure_ = log_failure(msg::STORE_NOT_OPENED, db_strerror(open_result), path);
    }
}

Store::~Store() {
    (void)close();
}

int Store::close() {
    if (db_ == nullptr) {
        return 0;
    }
    int result = written_ ? close_and_flush(db_, lock_->fd()) : db_->close(db_, 0);
    db_ = nullptr;
    if (change_) {
        result = change_->put_in_place();
        change_.reset();
    } else if (result == 0 && written_) {
        result = finish_batch();
    }
    usable_ = false;
    lock_.reset();
    return result;
}

// Somebody who has got the lock meanwhile may have put another file in the place of this one.
int Store::finish_batch() {
    if (!lock_->is_current()) {
        return ESTALE;
    }
    if (!put_failed_) {
        keep_verdict(*lock_);
    }
    return 0;
}

int Store::get(std::string_view key, std::string& value, std::uint32_t most) {
    if (!usable_) {
        return EINVAL;
    }
    DBT name = dbt_of(key);
    DBT data{};
    data.dlen = most;
    data.flags = most == WHOLE ? 0 : DB_DBT_PARTIAL;
    DB* db = current();
    const int result = db->get(db, nullptr, &name, &data, 0);
    if (result == 0) {
        value = text_in(data);
    }
    return result;
}

DB* Store::current() const {
    return change_ ? change_->copy() : db_;
}

int Store::begin_change() {
    if (!usable_) {
        return EINVAL;
    }
    if (changing_) {
        return 0;
    }
    if (!lock_ || store_use() == StoreUse::INSPECT) {
        return EACCES;
    }
    lock_->announce_change();
    // A batch is written in place: a copy of a large list for each of its connections would cost
    // more than the records. What a kill leaves is known for a part, and is emptied if it is
    // damaged.
    if (!batch_) {
        auto change = std::make_unique<StoreChange>(*lock_);
        if (const int failed = change->begin(); failed != 0) {
            return failed;
        }
        change_ = std::move(change);
    }
    changing_ = true;
    return 0;
}

int Store::put(std::string_view key, std::string_view value) {
    if (const int refused = begin_change(); refused != 0) {
        return refused;
    }
    if (change_) {
        return change_->put(key, value);
    }
    DBT name = dbt_of(key);
    DBT data = dbt_of(value);
    const int result = db_->put(db_, nullptr, &name, &data, 0);
    written_ = written_ || result == 0;
    put_failed_ = put_failed_ || result != 0;
    return result;
}

int Store::del(std::string_view key) {
    std::string nothing;
    if (const int absent = get(key, nothing, 0); absent != 0) {
        return absent;  // before anything is copied for it
    }
    if (const int refused = begin_change(); refused != 0) {
        return refused;
    }
    if (change_) {
        return change_->del(key);
    }
    DBT name = dbt_of(key);
    const int result = db_->del(db_, nullptr, &name, 0);
    written_ = written_ || result == 0;
    return result;
}

StoreCursor::StoreCursor(Store& store) {
    DB* db = store.usable_ ? store.current() : nullptr;
    if (db != nullptr && db->cursor(db, nullptr, &cursor_, 0) != 0) {
        cursor_ = nullptr;
    }
    failed_ = cursor_ == nullptr;
}

StoreCursor::~StoreCursor() {
    if (cursor_ != nullptr) {
        (void)cursor_->c_close(cursor_);
    }
}

bool StoreCursor::next(std::string_view& key, std::string_view& value) {
    DBT name{};
    DBT data{};
    const int result = cursor_ == nullptr ? EINVAL : cursor_->c_get(cursor_, &name, &data, DB_NEXT);
    failed_ = result != 0 && result != DB_NOTFOUND;
    if (result != 0) {
        return false;
    }
    key = text_in(name);
    value = text_in(data);
    return true;
}
