#include "stamps.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>

#include "keys.h"
#include "local_time.h"
#include "store.h"

namespace {

constexpr char SEPARATOR = '#';

// The last stamps that could be read; held while config.db is read, so that no older pair comes
// after a newer one. Taken before the lock of config.db.
std::mutex last_read_lock;
std::optional<StampPair> last_read;

}  // namespace

std::string_view comparable_stamp(std::string_view stamp) {
    // Other tools may have stored the terminating zero byte with the text.
    return stamp.substr(0, std::min(MAX_STAMP, stamp.find('\0')));
}

std::string join_stamps(const StampPair& stamps) {
    return stamps.config + SEPARATOR + stamps.client;
}

SplitStamps split_stamps(std::string_view text) {
    const std::size_t separator = text.find(SEPARATOR);
    const bool found = separator != std::string_view::npos;
    const std::string_view client = found ? text.substr(separator + 1) : std::string_view();
    return {{std::string(comparable_stamp(text.substr(0, separator))),
             std::string(comparable_stamp(client))},
            found};
}

std::optional<StampPair> read_stamps(const char* missing) {
    constexpr std::array KEYS = {KEY_CONFIG_VERSION, KEY_CLIENT_VERSION};
    std::array<std::optional<std::string>, KEYS.size()> values;
    if (!db_read_settled(CONFIG_DB, KEYS, values)) {
        return std::nullopt;
    }
    const auto stamp = [missing](const std::optional<std::string>& value) {
        return value ? std::string(comparable_stamp(*value)) : std::string(missing);
    };
    return StampPair{stamp(values[0]), stamp(values[1])};
}

std::optional<StampPair> current_stamps() {
    const std::lock_guard lock(last_read_lock);
    if (auto read = read_stamps(NO_STAMP)) {
        last_read = std::move(read);
    }
    return last_read;
}

char* format_timestamp(char* buffer, std::size_t size) {
    const std::tm now = local_time(std::time(nullptr));
    std::memset(buffer, 0, size);
    (void)std::snprintf(buffer, size, "%04d%02d%02d%02d%02d%02d", now.tm_year + 1900,
                        now.tm_mon + 1, now.tm_mday, now.tm_hour, now.tm_min, now.tm_sec);
    return buffer;
}

std::string next_stamp(const std::string& present, const std::string& now) {
    const bool comparable = present.size() == now.size() &&
                            present.find_first_not_of("0123456789") == std::string::npos;
    if (!comparable || present < now) {
        return now;
    }
    const std::string next = std::to_string(std::stoull(present) + 1);
    return next.size() == now.size() ? next : now;
}

void ensure_dsver() {
    std::string present;
    if (db_read_settled(CONFIG_DB, KEY_DSVER, present) == StoreRead::ABSENT) {
        char stamp[20];
        (void)db_put(CONFIG_DB, KEY_DSVER, format_timestamp(stamp, sizeof stamp));
    }
}
