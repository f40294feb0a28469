// Comma lists and whole-file scans. The daemon itself calls none of them: they belong to the store
// layer that it shares with the site's other tools.
#include <db.h>

#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "keys.h"
#include "log.h"
#include "store.h"
#include "text.h"

namespace {

// The list under `key` of a file that stays open for its change, empty when there is none. Nothing
// when it cannot be read: taken for an empty one, it would lose all its items.
std::optional<std::string> read_list(const std::unique_ptr<Store>& store, const char* key) {
    std::string list;
    const int result = store ? store->get(key, list) : DB_NOTFOUND;
    if (!store || (result != 0 && result != DB_NOTFOUND)) {
        return std::nullopt;
    }
    return list.substr(0, list.find('\0'));
}

// Stores the list and closes the file. Returns why it is not stored, or an empty text.
std::string put_list(Store& store, const char* key, std::string_view list) {
    if (const int result = store.put(key, list); result != 0) {
        return log_failure(msg::RECORD_NOT_STORED, store_error_text(result));
    }
    const int closed = store.close();
    return closed == 0 ? "" : store_error_text(closed);
}

// The same for a list without items, whose key goes.
std::string delete_list(Store& store, const char* key) {
    const int deleted = store.del(key);
    const int closed = store.close();
    return deleted == 0 && closed == 0 ? "" : store_error_text(deleted != 0 ? deleted : closed);
}

std::string read_failure(const std::unique_ptr<Store>& store) {
    const std::string failure = open_failure(store);
    return failure.empty() ? "the list cannot be read" : failure;
}

std::string join(const std::vector<std::string_view>& items) {
    std::string list;
    for (const std::string_view item : items) {
        list += list.empty() ? "" : ",";
        list += item;
    }
    return list;
}

std::string cut(std::string_view text, std::size_t limit) {
    // A record of another tool may carry its zero byte: as text it ends there.
    return std::string(text.substr(0, std::min(limit, text.find('\0'))));
}

}  // namespace

int db_list_index(const char* path, const char* key, const char* item) {
    const std::unique_ptr<Store> store = db_open(path);
    const auto list = read_list(store, key);
    if (!list) {
        return -1;
    }
    if (list->empty()) {
        (void)put_list(*store, key, item);
        return -1;
    }
    const auto items = split(*list, ',');
    const auto found = std::find(items.begin(), items.end(), item);
    return found == items.end() ? -1 : static_cast<int>(found - items.begin()) + 1;
}

std::string remove_list_item(const char* path, const char* key, const char* item) {
    const std::unique_ptr<Store> store = db_open(path);
    const auto list = read_list(store, key);
    if (!list) {
        return read_failure(store);
    }
    if (list->empty()) {
        return {};
    }
    if (*list == item) {
        return delete_list(*store, key);
    }
    auto items = split(*list, ',');
    std::erase(items, item);
    return put_list(*store, key, join(items));
}

std::string add_list_item(const char* path, const char* key, const char* item) {
    const std::unique_ptr<Store> store = db_open(path);
    const auto list = read_list(store, key);
    if (!list) {
        return read_failure(store);
    }
    if (list_has(*list, item)) {
        return {};
    }
    const std::string longer = list->empty() ? item : *list + "," + item;
    return longer.size() > MAX_LIST ? "the list would be too long" : put_list(*store, key, longer);
}

void db_list_remove(const char* path, const char* key, const char* item) {
    (void)remove_list_item(path, key, item);
}

void db_list_add(const char* path, const char* key, const char* item) {
    (void)add_list_item(path, key, item);
}

void db_next_numbered(const char* path, const char* key, const char* value) {
    const std::unique_ptr<Store> store = db_open(path);
    if (!store) {
        return;
    }
    int largest = 0;
    bool found = false;
    StoreCursor cursor(*store);
    for (std::string_view name, data; cursor.next(name, data);) {
        found = found || cut(name, MAX_RECORD_KEY) == key;
        largest = std::max(largest, leading_number(cut(data, MAX_RECORD_VALUE)));
    }
    const std::string_view given(value);
    const std::size_t separator = given.find('#');
    if (!found && separator != std::string_view::npos) {
        const std::string numbered =
            std::to_string(largest) + "#" + std::string(given.substr(separator + 1));
        (void)store->put(key, numbered);
    }
}

void db_dump(const char* path) {
    const std::unique_ptr<Store> store = db_open(path);
    if (!store) {
        return;
    }
    StoreCursor cursor(*store);
    std::string_view key;
    std::string_view value;
    while (cursor.next(key, value)) {
        log_message(msg::STORE_RECORD, cut(key, MAX_RECORD_KEY).c_str(),
                    cut(value, MAX_RECORD_VALUE).c_str());
    }
}
