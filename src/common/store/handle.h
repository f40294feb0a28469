// Making Berkeley DB handles and files: the one place that sets what all of them share.
#pragma once

#include <db.h>

#include <cstdint>
#include <string>

#include "common/store/lock.h"

// A new handle that is silent on stderr, or null. `cache_bytes` 0 keeps the library's default
// (256 KiB). The first one replaces the library's flush, in the whole process, by one that
// close_and_flush() can leave out.
DB* create_handle(std::uint32_t cache_bytes);

// Closes a handle of create_handle() whose file was written to, and flushes that file, which `fd`
// has open, too, once: the library alone does so twice. 0 or an error code.
int close_and_flush(DB* db, int fd);

// Creates the empty hash database `path` with that mode less the umask. 0 or the library's error
// code.
int create_database(const std::string& path, int mode);

// Sees to it that the locked file exists, creating it unless this process only inspects. 0 or an
// error code.
int ensure_file(StoreLock& lock);

// The temporary file, "__db.<name>" beside it, under which the library creates `path`.
std::string creation_of(const std::string& path);

// Removes what a killed creation of `path` left behind: the library would wait 100 seconds for it
// at every further creation. One that is younger than some seconds may be another process at work:
// it is waited for, until it goes or is old. 0, or why it cannot be removed.
int remove_leftover_creation(const std::string& path);
