// Making Berkeley DB handles: the one place that sets what every handle of the daemon shares.
#pragma once

#include <db.h>

#include <cstdint>

// A new handle that is silent on stderr, or null. `cache_bytes` 0 keeps the library's default
// (256 KiB).
DB* create_handle(std::uint32_t cache_bytes);
