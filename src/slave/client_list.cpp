#include "client_list.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <optional>
#include <vector>

#include "keys.h"
#include "log.h"
#include "store.h"
#include "store_walk.h"

namespace {

// A stamp is stored or the old list put back, never both. Taken before the lock of client.db.
std::mutex completion;

std::atomic<bool> put_back = false;

std::optional<std::size_t> count_records(const char* path) {
    RecordWalk walk(path);
    std::vector<StoredRecord> chunk;
    std::size_t count = 0;
    while (walk.next_chunk(chunk)) {
        count += chunk.size();
    }
    return walk.failed() ? std::nullopt : std::optional(count);
}

}  // namespace

bool clear_client_db() {
    const std::lock_guard lock(completion);
    const bool empty = db_replace_empty(CLIENT_DB, PREVIOUS_CLIENT_DB);
    put_back = put_back && !empty;
    return empty;
}

bool client_list_put_back() {
    return put_back;
}

void complete_client_list(const char* stamp) {
    const std::lock_guard lock(completion);
    if (put_back) {
        write_log(LOG_ERROR, "%s not stored: the previous client list was put back",
                  KEY_CLIENT_VERSION);
    } else if (db_store(CONFIG_DB, KEY_CLIENT_VERSION, stamp)) {
        (void)unlink(PREVIOUS_CLIENT_DB);
    }
}

void put_back_client_list() {
    const std::lock_guard lock(completion);
    if (access(PREVIOUS_CLIENT_DB, F_OK) != 0) {
        return;
    }
    const auto kept = count_records(PREVIOUS_CLIENT_DB);
    const auto unfinished = count_records(CLIENT_DB);
    if (!kept) {
        write_log(LOG_ERROR, "%s cannot be read, not put back", PREVIOUS_CLIENT_DB);
        return;
    }
    const StoreLock client_db(CLIENT_DB);  // waits for the end of an open batch
    if (rename(PREVIOUS_CLIENT_DB, CLIENT_DB) != 0) {
        write_log(LOG_ERROR, "%s cannot be put back:%s", PREVIOUS_CLIENT_DB, strerror(errno));
        return;
    }
    put_back = true;
    // A kill right after the list was kept leaves two names of one file, which no rename ends.
    (void)unlink(PREVIOUS_CLIENT_DB);
    write_log(LOG_ERROR, "client list put back: %zu records, instead of %zu of an unfinished push",
              *kept, unfinished.value_or(0));
}
