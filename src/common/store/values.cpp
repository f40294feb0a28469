// Single values: each operation opens the file, does one thing and closes it.
#include <db.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "log.h"
#include "owned.h"
#include "store.h"
#include "text.h"

namespace {

using namespace std::chrono_literals;

constexpr auto SETTLE_TIME = 5ms;  // a foreign writer needs less to finish one record

bool read_together(const char* path, std::span<const char* const> keys,
                   std::span<std::optional<std::string>> values) {
    const std::unique_ptr<Store> store = db_open(path);
    for (std::size_t n = 0; n < keys.size(); ++n) {
        std::string value;
        const int result = store ? store->get(keys[n], value) : ENOMEM;
        if (result != 0 && result != DB_NOTFOUND) {
            return false;
        }
        values[n] = result == 0 ? std::optional(std::move(value)) : std::nullopt;
    }
    return true;
}

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

bool db_read_settled(const char* path, std::span<const char* const> keys,
                     std::span<std::optional<std::string>> values) {
    if (read_together(path, keys, values) &&
        std::all_of(values.begin(), values.end(), [](const auto& value) { return value; })) {
        return true;
    }
    std::this_thread::sleep_for(SETTLE_TIME);
    return read_together(path, keys, values);
}

StoreRead db_read_settled(const char* path, const char* key, std::string& value) {
    std::optional<std::string> found;
    if (!db_read_settled(path, {&key, 1}, {&found, 1})) {
        return StoreRead::UNREADABLE;
    }
    value = found.value_or(value);
    return found ? StoreRead::FOUND : StoreRead::ABSENT;
}

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
