// The configuration store: Berkeley DB key/value files that the daemon shares with the site's
// administration tools.
//
// Keys and values are texts, stored without their terminating zero byte. Files are of the hash
// method, without environment, transactions or sub-databases; this system's Berkeley DB 5.3 writes
// hash format 9. A missing file is created (0664 less the umask) by any access, reads included,
// unless an operation says otherwise.
//
// Every operation opens the file, does one thing and closes it. From open to close it holds
// - a process-wide lock of that path, because several threads writing one file without it lose
//   records and corrupt the file without any error, and
// - flock() on the file against other processes. The daemon waits until one holder has kept it for
//   250 milliseconds, and then does without, as a process that holds it must never cause a
//   take-over; a change is logged then.
// A thread must not open a file that it has open already, and must not keep one open while it
// sends, forks or runs outside programs.
//
// A change is made to a copy of the file in memory, which takes the file's place when the store is
// closed: a kill, a power failure or a full disk at any moment leaves the old file or the new one.
// Mode and owner stay, and a symbolic link is followed. If a program that takes no lock has written
// to the file meanwhile, the changes are made again to what it has written. Only a batch is written
// in place.
//
// A tool says how it uses the files by set_store_use(): one that inspects creates and changes
// nothing, whatever operation it calls.
//
// A file is verified before use, since the library crashes or loops on files damaged inside; the
// verdict is kept while the file stays the same. A damaged file is treated as one that cannot be
// opened, and is never written into. A walk over all records reads the pages without the library.
//
// All operations may be called from any thread. Those that open a file log when no
// handle can be made, when the file cannot be opened or does not verify, and when a record cannot
// be stored.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "owned.h"

struct __db;
struct __dbc;
class PageWalk;
class StoreChange;
class StoreLock;

// How this process uses the database files: the daemon's way, unless it says otherwise.
enum class StoreUse {
    SERVE,    // creates missing files; a lock that somebody keeps for 250 ms is done without
    INSPECT,  // creates and changes nothing, shares its locks; waits for one as EDIT does
    EDIT,     // creates missing files; waits 10 s for a lock that somebody keeps, then EBUSY
};

// For tools, which have no heartbeat to miss. Holds for every file that is opened from then on.
void set_store_use(StoreUse use);
StoreUse store_use();

// --- Open files ----------------------------------------------------------------------------------

// An open database file, locked until it is closed. Not shared between threads.
class Store {
public:
    ~Store();
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;

    // False when the file could not be opened or is damaged: every operation then fails.
    bool usable() const { return usable_; }

    // Whether it is unusable because its contents are damaged, not because the system refused it.
    bool damaged() const { return damaged_; }

    // Why it is unusable, as it was logged; empty when it is not.
    const std::string& failure() const { return failure_; }

    // Each returns 0 or the library's error code (DB_NOTFOUND for an absent key). Of a value, no
    // more than the first `most` bytes are read, not even from the disk. The first change logs
    // whether it is made without the lock; otherwise none logs. After a change that failed, close()
    // leaves the file as it was.
    int get(std::string_view key, std::string& value, std::uint32_t most = WHOLE);
    int put(std::string_view key, std::string_view value);
    int del(std::string_view key);

    // Puts the changes in place, flushes, closes and unlocks; the destructor does it otherwise.
    // Returns 0 or the library's error code: then the file is as it was or, after a batch and where
    // only the directory could not be flushed, what was put may not be on disk. Logged, except for
    // a batch. EBUSY: another program kept changing the file. ESTALE: the file of a batch was
    // replaced meanwhile.
    int close();

    static constexpr std::uint32_t WHOLE = UINT32_MAX;

private:
    friend class StoreCursor;
    friend std::unique_ptr<Store> db_open_present(const char* path);
    friend std::unique_ptr<Store> db_open(const char* path, std::uint32_t cache_bytes);
    static std::unique_ptr<Store> open(std::unique_ptr<StoreLock> lock, std::uint32_t cache_bytes);
    Store(const char* path, __db* db, int open_result);
    __db* current() const;
    int finish_batch();
    int begin_change();

    std::unique_ptr<StoreLock> lock_;
    std::unique_ptr<StoreChange> change_;  // once something is changed, but not in place
    __db* db_;
    bool usable_;
    bool damaged_;
    std::string failure_;
    bool batch_ = false;
    bool changing_ = false;
    bool written_ = false;     // in place
    bool put_failed_ = false;  // then nobody can say whether the file is sound
};

// A walk over the records of an open store, in the file's own order. It may or may
// not see what is changed meanwhile.
class StoreCursor {
public:
    explicit StoreCursor(Store& store);
    ~StoreCursor();
    StoreCursor(const StoreCursor&) = delete;
    StoreCursor& operator=(const StoreCursor&) = delete;

    // The next record, or false at the end or on an error, which failed() tells apart. The views
    // hold until the next call.
    bool next(std::string_view& key, std::string_view& value);
    bool failed() const { return failed_; }

private:
    __dbc* cursor_ = nullptr;
    bool failed_ = false;
};

// Opens `path`, creating it when missing. Null only when no handle could be made; a store that
// could not be opened comes back unusable. `cache_bytes` makes it a batch: many changes, written in
// place, for which a cache of that size holds the whole file.
std::unique_ptr<Store> db_open(const char* path, std::uint32_t cache_bytes = 0);

// The same for a file whose absence is nothing unusual: it is not created. Null, without a line,
// when there is none.
std::unique_ptr<Store> db_open_present(const char* path);

// Why db_open returned this: the reason of a null one or of an unusable store, as it was logged;
// empty for a usable one.
std::string open_failure(const std::unique_ptr<Store>& store);

struct StoredRecord {
    std::string key;
    std::string value;
};

// A walk over all records of a file for users that do something slow with each, such as sending it.
// It reads a private copy of the file: nobody is kept from writing to the file meanwhile, and every
// record of the moment at which the walk began comes exactly once.
class RecordWalk {
public:
    // Copies the file, which is locked for that time only, and examines the copy: of a damaged file
    // no record comes. Logs as db_open does. Not shared between threads.
    explicit RecordWalk(const char* path);
    RecordWalk(const RecordWalk&) = delete;
    RecordWalk& operator=(const RecordWalk&) = delete;
    ~RecordWalk();

    // Reads the next records into `chunk`, replacing what it held: true with some, false at the end
    // or when the file cannot be read; failed() tells which.
    bool next_chunk(std::vector<StoredRecord>& chunk);

    bool failed() const { return !failure().empty(); }

    // Why it failed; empty when it did not.
    std::string failure() const;

private:
    OwnedFd copy_;
    std::unique_ptr<PageWalk> pages_;
    std::string failure_;
};

// --- Single values -------------------------------------------------------------------------------

// The value of `key` as a new zero-terminated text that the caller frees (OwnedText), or null when
// the key is absent or the file cannot be read.
char* db_get(const char* path, const char* key);

enum class StoreRead { FOUND, ABSENT, UNREADABLE };

// Reads `key` into `value`, for values whose absence has consequences: a file that cannot be read
// is told apart, and a missing key is looked for once more after a moment, as a reader beside a
// foreign writer was seen to miss a key that is there.
StoreRead db_read_settled(const char* path, const char* key, std::string& value);

// The same for several keys in one opening of the file, so that their values belong together. Each
// entry of `values` is the value of the key at its place, or nothing when that is absent. False
// when the file cannot be read.
bool db_read_settled(const char* path, std::span<const char* const> keys,
                     std::span<std::optional<std::string>> values);

// Stores `value` under `key`, replacing an older one. Returns the result of Store::close(), 0 on
// success; a failed put is only logged.
int db_put(const char* path, const char* key, const char* value);

// As db_put, but returns whether the record is stored.
bool db_store(const char* path, const char* key, const char* value);

// Deletes `key`; an absent one is no error. Returns the result of Store::close().
int db_del(const char* path, const char* key);

// The value of `key` as a decimal number, or `fallback` when it is absent, empty or below 1.
int db_get_int(const char* path, const char* key, int fallback);

// The library's text of one of its error codes; static.
const char* store_error_text(int code);

// --- Whole files ---------------------------------------------------------------------------------

// Puts a fresh, empty file in the place of `path`, keeping mode and owner; a kill at any moment
// leaves either the old or the new one. A damaged file is kept as "<path>.damaged", which is
// logged. Returns whether the file in place is now empty, also after a power failure; why not is
// logged.
bool db_replace_empty(const char* path);

// Gives the file `path` the second name `name`, in the place of what has it. NO_RECORDS for one
// that is missing or has none. NO for a damaged one, which is not logged, and for one whose lock or
// name the system refuses, which is. The name is on disk with the next flush of the directory.
enum class StoreKept { YES, NO_RECORDS, NO };
StoreKept db_keep(const char* path, const char* name);

// Examines the file `path`, which nobody else has open. 0, or the library's error code when it is
// no sound database. Takes no lock; logs nothing.
int db_verify(const char* path);

// Puts a copy of the database `source` in the place of `target`, with mode and owner of the file
// that it replaces, or else those of a new store; an ordinary user's copy is his own. A symbolic
// link `target` is followed. The source is locked
// while it is copied, and the copy verified. A kill or a power failure at any moment leaves the old
// file or the new one. Returns an empty text, or why `target` stays as it was.
std::string db_copy(const std::string& source, const std::string& target);

// What a download is known to be. A database that db_verify() has found sound is not verified again
// by whoever opens it, where that would take long.
enum class Download { ANY_FILE, SOUND_DATABASE };

// Moves `download` over `target`. A kill or a power failure at any moment leaves either the old
// file or the new one. Returns an empty text, or why the old file had to stay, as it was logged;
// logged is also that a power failure may bring it back.
std::string put_copy_in_place(const std::string& download, const std::string& target,
                              Download kind = Download::ANY_FILE);

// Renames the file `source` over `target` as soon as nobody has that one open: a reader that finds
// no file creates an empty one, which must not come after `source`. `renamed` is called after a
// success, before anybody can open the file. 0 or an errno. Logs only that it did not wait longer
// for somebody who keeps the file open.
int db_rename_over(const std::string& source, const std::string& target,
                   const std::function<void()>& renamed = nullptr);

// What the first page of a file says about it.
struct StoreFormat {
    std::uint32_t magic;    // HASH_MAGIC for the hash method in this host's byte order
    std::uint32_t version;  // of the method's format
};
inline constexpr std::uint32_t HASH_MAGIC = 0x061561;

// Nothing when the file cannot be read or is too short for a page. Takes no lock; logs nothing.
std::optional<StoreFormat> db_format(const char* path);

// How many records the first page of a file counts, without a walk over them: all of them, since
// the library keeps the number exact where files are used without an environment. Nothing when it
// is no hash file that can be read. Takes no lock; logs nothing.
std::optional<std::size_t> db_count(const char* path);

// --- Comma lists: items joined by "," without blanks ---------------------------------------------
// Each reads and writes in one go. A list that cannot be read is left as it is.

inline constexpr std::size_t MAX_LIST = 4095;  // characters; what the other tools' buffers hold

// The 1-based position of `item` in the list under `key`, or -1. An absent or empty list becomes
// the one item (and -1 is returned).
int db_list_index(const char* path, const char* key, const char* item);

// Takes every `item` out of the list; the key goes when the whole value is the item.
void db_list_remove(const char* path, const char* key, const char* item);

// Appends `item` unless the list has it. A list beyond MAX_LIST characters is left as it is.
void db_list_add(const char* path, const char* key, const char* item);

// The same two; they return an empty text, or why the list is not as wanted.
std::string remove_list_item(const char* path, const char* key, const char* item);
std::string add_list_item(const char* path, const char* key, const char* item);

// --- Scans of a whole file; keys are cut at 127, values at 1023 characters -----------------------

// If no record has `key` and `value` has the form number#text, stores under `key` the largest
// number that any value of the file begins with, "#" and that text.
void db_next_numbered(const char* path, const char* key, const char* value);

// Logs every record.
void db_dump(const char* path);
