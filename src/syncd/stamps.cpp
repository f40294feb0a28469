#include "stamps.h"

#include <map>

#include "keys.h"
#include "store.h"

std::optional<std::string> current_stamp(const char* key) {
    static std::map<std::string, std::string> last_read;
    std::string value;
    switch (db_read_settled(CONFIG_DB, key, value)) {
        case StoreRead::FOUND:
            return last_read[key] = value;
        case StoreRead::ABSENT:
            return last_read[key] = "null";
        case StoreRead::UNREADABLE:
            break;
    }
    const auto last = last_read.find(key);
    return last == last_read.end() ? std::nullopt : std::optional(last->second);
}
