#include "client_list.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
#include <thread>

#include "keys.h"
#include "log.h"
#include "replace_file.h"
#include "signals.h"
#include "store.h"

namespace {

using namespace std::chrono_literals;

// A stamp is stored or the old list put back, never both. Taken before the lock of client.db.
std::mutex completion;

std::atomic<bool> put_back = false;

// At most so many pushes are still to come: each time the list was emptied, the master was asked
// for one. And whether one of them has come to its end since. Both guarded by `completion`.
int pushes_due = 0;
bool complete = false;

std::atomic<int> works_in_hand = 0;

// When the last work on the list ended, in steady time since its epoch; 0 outside a push.
std::atomic<std::chrono::nanoseconds::rep> last_work = 0;

constexpr auto SILENCE = 2s;  // after so long a push no longer counts as alive
constexpr auto STEP = 50ms;

std::chrono::nanoseconds steady_now() {
    return std::chrono::steady_clock::now().time_since_epoch();
}

bool push_is_alive() {
    const std::chrono::nanoseconds last(last_work);
    return works_in_hand > 0 || (last != 0ns && steady_now() - last < SILENCE);
}

std::optional<std::size_t> count_records(const char* path) {
    const std::unique_ptr<Store> store = db_open(path);
    if (!store || !store->usable()) {
        return std::nullopt;
    }
    StoreCursor cursor(*store);
    std::size_t count = 0;
    for (std::string_view key, value; cursor.next(key, value);) {
        ++count;
    }
    return cursor.failed() ? std::nullopt : std::optional(count);
}

// Whether the list is empty now; `completion` is held.
bool empty_list() {
    const bool empty = db_replace_empty(CLIENT_DB, PREVIOUS_CLIENT_DB);
    put_back = put_back && !empty;
    complete = complete && !empty;
    return empty;
}

}  // namespace

bool clear_client_db() {
    const std::lock_guard lock(completion);
    const bool empty = empty_list();
    pushes_due += empty ? 1 : 0;
    return empty;
}

bool begin_client_push() {
    const std::lock_guard lock(completion);
    return pushes_due == 0 || !complete || empty_list();
}

void note_equal_client_lists() {
    {
        const std::lock_guard lock(completion);
        pushes_due = 0;
    }
    put_back_client_list();
}

bool replace_damaged_client_db() {
    const std::lock_guard lock(completion);
    return !put_back && db_replace_empty(CLIENT_DB);
}

bool client_list_put_back() {
    return put_back;
}

void complete_client_list(const char* stamp) {
    const std::lock_guard lock(completion);
    if (put_back) {
        log_message(msg::STAMP_AFTER_PUTTING_BACK, KEY_CLIENT_VERSION);
        return;
    }
    pushes_due -= pushes_due > 0 ? 1 : 0;
    complete = true;
    // In this order, also on disk: a kill or a power failure in between must not leave a list that
    // is older than the stamp.
    if (unlink(PREVIOUS_CLIENT_DB) == 0) {
        (void)flush_directory_of(PREVIOUS_CLIENT_DB);
    }
    (void)db_put(CONFIG_DB, KEY_CLIENT_VERSION, stamp);
}

void put_back_client_list() {
    const std::lock_guard lock(completion);
    if (access(PREVIOUS_CLIENT_DB, F_OK) != 0) {
        return;
    }
    const auto kept = count_records(PREVIOUS_CLIENT_DB);
    const auto unfinished = count_records(CLIENT_DB);
    if (!kept) {
        log_message(msg::KEPT_LIST_UNREADABLE, PREVIOUS_CLIENT_DB);
        return;
    }
    // Waits for the end of an open batch; the next one sees what it has opened.
    const int failed = db_rename_over(PREVIOUS_CLIENT_DB, CLIENT_DB, [] { put_back = true; });
    if (failed != 0) {
        log_message(msg::KEPT_LIST_NOT_RENAMED, PREVIOUS_CLIENT_DB, strerror(failed));
        return;
    }
    // A kill right after the list was kept leaves two names of one file, which no rename ends.
    (void)unlink(PREVIOUS_CLIENT_DB);
    log_message(msg::LIST_PUT_BACK, *kept, unfinished.value_or(0));
}

ClientListWork::ClientListWork() {
    ++works_in_hand;
}

ClientListWork::~ClientListWork() {
    last_work = steady_now().count();
    --works_in_hand;
}

void note_end_of_push() {
    last_work = 0;
}

void await_end_of_push() {
    while (push_is_alive() && slave_exit_requested != 1) {
        std::this_thread::sleep_for(STEP);
    }
}
