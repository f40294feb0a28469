// Making Berkeley DB handles: the one place that sets what every handle of the daemon shares.
#pragma once

#include <db.h>

#include <cstdint>
#include <string>

#include "store_lock.h"

// A new handle that is silent on stderr, or null. `cache_bytes` 0 keeps the library's default
// (256 KiB).
DB* create_handle(std::uint32_t cache_bytes);

// Creates the empty hash database `path` with that mode less the umask. 0 or the library's error
// code.
int create_database(const std::string& path, int mode);

// Sees to it that the locked file exists, creating it unless this process only inspects. 0 or an
// error code.
int ensure_file(StoreLock& lock);
