#include "store.h"

#include <db.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "log.h"
#include "store_check.h"
#include "store_handle.h"
#include "text.h"

namespace {

using namespace std::chrono_literals;

constexpr auto SETTLE_TIME = 5ms;  // a foreign writer needs less to finish one record
constexpr int FILE_MODE = 0664;

DBT dbt_of(std::string_view text) {
    DBT dbt{};
    dbt.data = const_cast<char*>(text.data());  // the library only reads it
    dbt.size = static_cast<u_int32_t>(text.size());
    return dbt;
}

std::string_view text_in(const DBT& dbt) {
    return {static_cast<const char*>(dbt.data), dbt.size};
}

// Creates the missing file and locks it.
int create_file(StoreLock& lock) {
    remove_leftover_creation(lock.path());
    if (const int failed = create_database(lock.path(), FILE_MODE); failed != 0) {
        return failed;
    }
    lock.relock();
    return lock.exists() ? 0 : ENOENT;
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

DB* create_handle(std::uint32_t cache_bytes) {
    DB* db = nullptr;
    if (db_create(&db, nullptr, 0) != 0) {
        return nullptr;
    }
    // Without a callback the library writes its own messages to stderr.
    db->set_errcall(db, [](const DB_ENV*, const char*, const char*) {});
    db->set_msgcall(db, [](const DB_ENV*, const char*) {});
    if (cache_bytes != 0) {
        (void)db->set_cachesize(db, 0, cache_bytes, 1);  // a smaller cache is only slower
    }
    return db;
}

int create_database(const std::string& path, int mode) {
    DB* db = create_handle(0);
    if (db == nullptr) {
        return ENOMEM;
    }
    const int opened = db->open(db, nullptr, path.c_str(), nullptr, DB_HASH, DB_CREATE, mode);
    const int closed = db->close(db, 0);
    return opened != 0 ? opened : closed;
}

int ensure_file(StoreLock& lock) {
    if (lock.refused()) {
        return EBUSY;
    }
    if (lock.exists()) {
        return 0;
    }
    return store_use() == StoreUse::INSPECT ? ENOENT : create_file(lock);
}

std::unique_ptr<Store> db_open(const char* path, std::uint32_t cache_bytes) {
    StoreLock lock(path);
    DB* db = create_handle(cache_bytes);
    if (db == nullptr) {
        log_message(msg::NO_STORE_HANDLE, db_strerror(1));  // never the real code, as ever
        return nullptr;
    }
    const int result = open_file(lock, db);
    if (result != 0) {
        log_message(msg::STORE_NOT_OPENED, db_strerror(result), path);
    }
    return std::unique_ptr<Store>(new Store(std::move(lock), db, result));
}

Store::Store(StoreLock lock, DB* db, int open_result)
    : lock_(std::move(lock)),
      db_(db),
      usable_(open_result == 0),
      damaged_(is_damage(open_result)) {}

Store::Store(OwnedFd snapshot, DB* db, int open_result)
    : snapshot_(std::move(snapshot)),
      db_(db),
      usable_(open_result == 0),
      damaged_(is_damage(open_result)) {}

Store::~Store() {
    (void)close();
}

int Store::close() {
    if (db_ == nullptr) {
        return 0;
    }
    const int result = db_->close(db_, 0);
    db_ = nullptr;
    if (result == 0 && written_ && !put_failed_ && lock_) {
        keep_verdict(*lock_);
    }
    usable_ = false;
    lock_.reset();
    snapshot_.reset();
    return result;
}

int Store::get(std::string_view key, std::string& value) {
    if (!usable_) {
        return EINVAL;
    }
    DBT name = dbt_of(key);
    DBT data{};
    const int result = db_->get(db_, nullptr, &name, &data, 0);
    if (result == 0) {
        value = text_in(data);
    }
    return result;
}

int Store::put(std::string_view key, std::string_view value) {
    if (!usable_) {
        return EINVAL;
    }
    DBT name = dbt_of(key);
    DBT data = dbt_of(value);
    const int result = db_->put(db_, nullptr, &name, &data, 0);
    written_ = written_ || result == 0;
    put_failed_ = put_failed_ || result != 0;
    return result;
}

int Store::del(std::string_view key) {
    if (!usable_) {
        return EINVAL;
    }
    DBT name = dbt_of(key);
    const int result = db_->del(db_, nullptr, &name, 0);
    written_ = written_ || result == 0;
    return result;
}

StoreCursor::StoreCursor(Store& store) {
    if (store.usable_ && store.db_->cursor(store.db_, nullptr, &cursor_, 0) != 0) {
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

int StoreCursor::put_last(std::string_view key, std::string_view value) {
    DBT name = dbt_of(key);
    DBT data = dbt_of(value);
    return cursor_ == nullptr ? EINVAL : cursor_->c_put(cursor_, &name, &data, DB_KEYLAST);
}

char* db_get(const char* path, const char* key) {
    const std::unique_ptr<Store> store = db_open(path);
    std::string value;
    if (!store || store->get(key, value) != 0) {
        return nullptr;
    }
    auto* copy = static_cast<char*>(std::calloc(value.size() + 1, 1));
    if (copy != nullptr) {
        std::memcpy(copy, value.data(), value.size());
    }
    return copy;
}

namespace {

StoreRead db_read(const char* path, const char* key, std::string& value) {
    const std::unique_ptr<Store> store = db_open(path);
    const int result = store ? store->get(key, value) : ENOMEM;
    return result == 0             ? StoreRead::FOUND
           : result == DB_NOTFOUND ? StoreRead::ABSENT
                                   : StoreRead::UNREADABLE;
}

}  // namespace

StoreRead db_read_settled(const char* path, const char* key, std::string& value) {
    const StoreRead result = db_read(path, key, value);
    if (result == StoreRead::FOUND) {
        return result;
    }
    std::this_thread::sleep_for(SETTLE_TIME);
    return db_read(path, key, value);
}

namespace {

struct PutResult {
    int put;
    int close;
};

PutResult put_and_close(const char* path, const char* key, const char* value) {
    const std::unique_ptr<Store> store = db_open(path);
    if (!store) {
        return {ENOMEM, ENOMEM};
    }
    const int put = store->put(key, value);
    if (put != 0) {
        log_message(msg::RECORD_NOT_STORED, db_strerror(put));
    }
    return {put, store->close()};
}

}  // namespace

int db_put(const char* path, const char* key, const char* value) {
    return put_and_close(path, key, value).close;
}

bool db_store(const char* path, const char* key, const char* value) {
    const PutResult result = put_and_close(path, key, value);
    return result.put == 0 && result.close == 0;
}

const char* store_error_text(int code) {
    return db_strerror(code);
}

int db_del(const char* path, const char* key) {
    const std::unique_ptr<Store> store = db_open(path);
    if (!store) {
        return ENOMEM;
    }
    (void)store->del(key);
    return store->close();
}

int db_get_int(const char* path, const char* key, int fallback) {
    const OwnedText value(db_get(path, key));
    const int number = leading_number(text_of(value));
    return number < 1 ? fallback : number;
}

char* ip_to_string(std::uint32_t address) {
    const auto octet = [address](unsigned n) {
        return (address >> (8 * n)) & 0xFFU;
    };
    std::string text = std::to_string(octet(0));
    for (unsigned n = 1; n < 4; ++n) {
        text += '.' + std::to_string(octet(n));
    }
    return strdup(text.c_str());
}
