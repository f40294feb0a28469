// Comma lists and whole-file scans. The daemon itself calls none of them: they belong to the store
// layer that it shares with the site's other tools.
#include <db.h>

#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "log.h"
#include "store.h"
#include "text.h"

namespace {

constexpr std::size_t MAX_KEY = 127;
constexpr std::size_t MAX_VALUE = 1023;

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

void put_list(Store& store, const char* key, std::string_view list) {
    if (const int result = store.put(key, list); result != 0) {
        log_message(msg::RECORD_NOT_STORED, store_error_text(result));
    }
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
        put_list(*store, key, item);
        return -1;
    }
    const auto items = split(*list, ',');
    const auto found = std::find(items.begin(), items.end(), item);
    return found == items.end() ? -1 : static_cast<int>(found - items.begin()) + 1;
}

void db_list_remove(const char* path, const char* key, const char* item) {
    const std::unique_ptr<Store> store = db_open(path);
    const auto list = read_list(store, key);
    if (!list || list->empty()) {
        return;
    }
    if (*list == item) {
        (void)store->del(key);
        return;
    }
    auto items = split(*list, ',');
    std::erase(items, item);
    put_list(*store, key, join(items));
}

void db_list_add(const char* path, const char* key, const char* item) {
    const std::unique_ptr<Store> store = db_open(path);
    const auto list = read_list(store, key);
    if (!list || list_has(*list, item)) {
        return;
    }
    const std::string longer = list->empty() ? item : *list + "," + item;
    if (longer.size() <= MAX_LIST) {
        put_list(*store, key, longer);
    }
}

void db_next_numbered(const char* path, const char* key, const char* value) {
    const std::unique_ptr<Store> store = db_open(path);
    if (!store) {
        return;
    }
    StoreCursor cursor(*store);
    std::string_view name;
    std::string_view data;
    int largest = 0;
    bool found = false;
    while (cursor.next(name, data)) {
        found = found || cut(name, MAX_KEY) == key;
        largest = std::max(largest, leading_number(cut(data, MAX_VALUE)));
    }
    const std::string_view given(value);
    const std::size_t separator = given.find('#');
    if (!found && separator != std::string_view::npos) {
        const std::string numbered =
            std::to_string(largest) + "#" + std::string(given.substr(separator + 1));
        (void)cursor.put_last(key, numbered);
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
        log_message(msg::STORE_RECORD, cut(key, MAX_KEY).c_str(), cut(value, MAX_VALUE).c_str());
    }
}
