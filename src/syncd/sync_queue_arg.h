// The argument of one job of the master's work server.
#pragma once

#include <cstdint>

struct tag_SyncQueueArg {
    std::uint32_t op;  // what to do; the only operation fetches a server's config.db
    char server[32];   // the server's dotted address
    char rest[4060];   // zero
};
static_assert(sizeof(tag_SyncQueueArg) == 4096);

using PSYNCQUEUEARG = tag_SyncQueueArg*;
