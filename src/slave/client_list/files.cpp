#include "slave/client_list/files.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>

#include "keys.h"
#include "log.h"
#include "log_burst.h"
#include "replace_file.h"
#include "store.h"

namespace {

using Phase = ListJournal::Phase;

// Holds 600,000 clients; memory is taken as the file grows, and given back with the batch.
constexpr std::uint32_t BATCH_CACHE = 256U << 20U;

constexpr const char* PHASES[] = {"whole", "unfinished", "closed"};
constexpr const char* KEPT_WORDS[] = {"alone", "kept"};

// "unfinished 2 kept ", "closed 0 alone STAMP": the phase, the pushes due, whether an old list is
// kept, and the stamp, which may hold anything but a zero byte; behind such a one, the own stamp.
std::string text_of(const ListJournal& journal) {
    return std::string(PHASES[static_cast<int>(journal.phase)]) + ' ' +
           std::to_string(journal.due) + ' ' + KEPT_WORDS[journal.kept ? 1 : 0] + ' ' +
           journal.stamp + (journal.own.empty() ? "" : '\0' + journal.own);
}

// Takes the next word off `text`; -1 when it is none of `words`.
template <std::size_t N>
int take_word(std::string_view& text, const char* const (&words)[N]) {
    const std::string_view word = text.substr(0, text.find(' '));
    text.remove_prefix(std::min(text.size(), word.size() + 1));
    const auto found = std::find(std::begin(words), std::end(words), word);
    return found == std::end(words) ? -1 : static_cast<int>(found - std::begin(words));
}

std::optional<ListJournal> parse_journal(std::string_view text) {
    ListJournal journal;
    const int phase = take_word(text, PHASES);
    const auto [end, failed] = std::from_chars(text.data(), text.data() + text.size(), journal.due);
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    if (phase < 0 || failed != std::errc() || journal.due < 0 || !text.starts_with(' ')) {
        return std::nullopt;
    }
    text.remove_prefix(1);
    const int kept = take_word(text, KEPT_WORDS);
    journal.phase = static_cast<Phase>(phase);
    journal.kept = kept == 1;
    journal.stamp = text.substr(0, text.find('\0'));
    text.remove_prefix(std::min(text.size(), journal.stamp.size() + 1));
    journal.own = text;
    return kept < 0 ? std::nullopt : std::optional(journal);
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

// The file's own number or, where it counts none, that of a walk: the file may be damaged. 0 for a
// missing one, which a walk would create.
std::optional<std::size_t> certain_count(const char* path) {
    if (access(path, F_OK) != 0) {
        return 0;
    }
    const std::optional<std::size_t> counted = db_count(path);
    return counted.value_or(0) > 0 ? counted : count_records(path);
}

// How many records client.db.before-shrink has, if nobody has had a week to look after it yet.
std::size_t records_to_be_restored() {
    constexpr std::time_t WEEK = std::time_t{7} * 24 * 60 * 60;
    struct stat file {};
    const bool fresh = stat(BEFORE_SHRINK_CLIENT_DB, &file) == 0 &&
                       std::time(nullptr) - file.st_ctime < WEEK;  // since it got this name
    return fresh ? db_count(BEFORE_SHRINK_CLIENT_DB).value_or(0) : 0;
}

// Removes the file, also for good. A missing one is flushed as well: an earlier call may have got
// only so far.
bool remove_for_good(const char* path) {
    int failed = unlink(path) == 0 || errno == ENOENT ? 0 : errno;
    if (failed == 0) {
        failed = flush_directory_of(path);
    }
    if (failed != 0) {
        log_message(msg::FILE_NOT_REMOVED, path, strerror(failed));
    }
    return failed == 0;
}

class HostFiles : public ListFiles {
public:
    ListJournal read_journal() override;
    bool has_journal() override { return access(CLIENT_JOURNAL, F_OK) == 0; }
    bool write_journal(const ListJournal& journal) override;

    bool has_kept() override { return access(PREVIOUS_CLIENT_DB, F_OK) == 0; }
    Kept keep() override;
    bool drop_kept() override { return remove_for_good(PREVIOUS_CLIENT_DB); }
    bool put_back() override;

    ListSizes sizes() override;
    bool keep_before_shrink(const ListSizes& sizes) override;

    bool empty() override { return db_replace_empty(CLIENT_DB); }

    std::optional<StampPair> stamps() override { return read_stamps(""); }
    bool store_stamp(const std::string& stamp) override {
        return db_store(CONFIG_DB, KEY_CLIENT_VERSION, stamp.c_str());
    }
    bool delete_stamp() override { return db_del(CONFIG_DB, KEY_CLIENT_VERSION) == 0; }

    Batch open_batch() override;
    FileId batch_file() override;
    bool put(const std::string& key, const std::string& value) override;
    bool close_batch() override;

private:
    std::unique_ptr<Store> batch_;
};

ListJournal HostFiles::read_journal() {
    if (!has_journal()) {
        return {};
    }
    std::ostringstream text;
    text << std::ifstream(CLIENT_JOURNAL, std::ios::binary).rdbuf();
    return parse_journal(text.str()).value_or(ListJournal{Phase::PART, 1, true, {}, {}});
}

bool HostFiles::write_journal(const ListJournal& journal) {
    if (journal == ListJournal{}) {
        return !has_journal() || remove_for_good(CLIENT_JOURNAL);
    }
    const auto fill = [&](const std::string& fresh) {
        errno = EIO;
        return (std::ofstream(fresh, std::ios::binary) << text_of(journal)).flush() ? 0 : errno;
    };
    const auto [in_place, failed] = replace_file(CLIENT_JOURNAL, fill);
    if (failed != 0) {
        log_message(msg::FILE_NOT_WRITTEN, CLIENT_JOURNAL, strerror(failed));
    }
    return failed == 0;
}

Kept HostFiles::keep() {
    switch (db_keep(CLIENT_DB, PREVIOUS_CLIENT_DB)) {
        case StoreKept::YES:
            return Kept::YES;
        case StoreKept::NO_RECORDS:
            return Kept::NO_RECORDS;
        case StoreKept::NO:
            break;
    }
    return Kept::LOST;
}

bool HostFiles::put_back() {
    const auto kept = count_records(PREVIOUS_CLIENT_DB);
    const auto unfinished = count_records(CLIENT_DB);
    if (!kept) {
        log_message(msg::KEPT_LIST_UNREADABLE, PREVIOUS_CLIENT_DB);
        return false;
    }
    if (const int failed = db_rename_over(PREVIOUS_CLIENT_DB, CLIENT_DB); failed != 0) {
        log_message(msg::KEPT_LIST_NOT_RENAMED, PREVIOUS_CLIENT_DB, strerror(failed));
        return false;
    }
    // A kill right after the list was kept leaves two names of one file, which no rename ends.
    if (unlink(PREVIOUS_CLIENT_DB) != 0 && errno != ENOENT) {
        log_message(msg::FILE_NOT_REMOVED, PREVIOUS_CLIENT_DB, strerror(errno));
    }
    // A journal that calls the list whole must not be on disk before the name is.
    if (const int failed = flush_directory_of(CLIENT_DB); failed != 0) {
        log_message(msg::STORE_NOT_FLUSHED, CLIENT_DB, strerror(failed));
        return false;
    }
    log_message(msg::LIST_PUT_BACK, *kept, unfinished.value_or(0));
    return true;
}

ListSizes HostFiles::sizes() {
    return {certain_count(PREVIOUS_CLIENT_DB), certain_count(CLIENT_DB).value_or(0)};
}

bool HostFiles::keep_before_shrink(const ListSizes& sizes) {
    const std::size_t kept = sizes.kept.value_or(0);
    if (const std::size_t more = records_to_be_restored(); more > kept) {
        const bool dropped = drop_kept();
        if (dropped) {
            log_message(msg::LARGER_LIST_STAYS, kept, sizes.now, BEFORE_SHRINK_CLIENT_DB, more);
        }
        return dropped;
    }
    if (const int failed = rename_file(PREVIOUS_CLIENT_DB, BEFORE_SHRINK_CLIENT_DB); failed != 0) {
        log_message(msg::PREVIOUS_LIST_NOT_KEPT, PREVIOUS_CLIENT_DB, BEFORE_SHRINK_CLIENT_DB,
                    strerror(failed));
        return false;
    }
    if (sizes.kept) {
        log_message(msg::LIST_SHRUNK, kept, sizes.now, BEFORE_SHRINK_CLIENT_DB);
    } else {
        log_message(msg::LIST_NOT_COUNTED, BEFORE_SHRINK_CLIENT_DB);
    }
    if (const int failed = flush_directory_of(CLIENT_DB); failed != 0) {
        log_message(msg::STORE_NOT_FLUSHED, BEFORE_SHRINK_CLIENT_DB, strerror(failed));
        return false;
    }
    return true;
}

Batch HostFiles::open_batch() {
    batch_ = db_open(CLIENT_DB, BATCH_CACHE);
    const bool damaged = batch_ && batch_->damaged();
    if (damaged) {
        // Everything in it comes from the master anyway.
        batch_.reset();
        (void)db_replace_empty(CLIENT_DB);
        batch_ = db_open(CLIENT_DB, BATCH_CACHE);
    }
    if (!batch_ || !batch_->usable()) {
        batch_.reset();
        return Batch::FAILED;
    }
    return damaged ? Batch::OPEN_EMPTY : Batch::OPEN;
}

FileId HostFiles::batch_file() {
    struct stat file {};
    (void)stat(CLIENT_DB, &file);
    return {file.st_dev, file.st_ino};
}

bool HostFiles::put(const std::string& key, const std::string& value) {
    const int result = batch_->put(key, value);
    if (result != 0) {
        log_message(msg::RECORD_NOT_STORED, store_error_text(result));
    }
    return result == 0;
}

bool HostFiles::close_batch() {
    end_log_burst();  // flushing takes its time
    const int result = batch_->close();
    batch_.reset();
    if (result != 0) {
        log_message(msg::STORE_NOT_FLUSHED, CLIENT_DB, store_error_text(result));
    }
    return result == 0;
}

}  // namespace

ListFiles& list_files() {
    static auto& files = *new HostFiles;  // never destroyed, as the list that works on it
    return files;
}
