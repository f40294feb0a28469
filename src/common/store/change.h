// Changes to a database file, made to a copy of it in memory that takes the file's place whole: a
// page that the library writes in place leaves a file that nothing opens, if it is the last one
// before a kill or a full disk.
#pragma once

#include <db.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/store/lock.h"
#include "owned.h"

class StoreChange {
public:
    // Of the locked file, whose lock outlives this object. Not shared between threads.
    explicit StoreChange(StoreLock& lock) : lock_(lock) {}
    ~StoreChange() { (void)close_copy(); }
    StoreChange(const StoreChange&) = delete;
    StoreChange& operator=(const StoreChange&) = delete;

    // Copies the file, and opens the copy. 0 or an error code.
    int begin();

    // The copy as changed so far; null before begin() and after put_in_place().
    DB* copy() const { return copy_; }

    // 0 or the library's error code (DB_NOTFOUND for an absent key).
    int put(std::string_view key, std::string_view value);
    int del(std::string_view key);

    // Flushes the copy and gives it the file's name, mode and owner; a symbolic link is followed.
    // Where a program that takes no lock has changed the file meanwhile, all is done again with
    // what is there now. 0 or an error code, which is logged: then the file is as it was, unless
    // only its directory could not be flushed.
    int put_in_place();

private:
    struct Step {
        std::string key;
        std::optional<std::string> value;  // none: the key is deleted
    };
    int make(const Step& step);
    int remember(Step step);
    int close_copy();
    int begin_again();
    int replace_file_once();
    int replace_unless_changed();

    StoreLock& lock_;
    std::string before_;  // the file's contents when it was copied
    OwnedFd memory_;
    DB* copy_ = nullptr;
    std::vector<Step> steps_;
    int failed_ = 0;  // of a step, after which nobody knows what the copy is worth
};
