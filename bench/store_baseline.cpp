// The baseline of a push: receives records on one connection, writes one log line for each, and
// puts them into one open file with a large cache.
//
//   store_baseline PORT DATABASE LOG
//
// Prints "records seconds" on standard error: from the accepted connection to the closed file,
// flush included, as the daemon cannot be ready before that either.
#include "plain.h"

namespace {

constexpr u_int32_t CACHE_BYTES = 256U << 20U;

std::size_t store_all(int connection, DB* db, const char* log) {
    std::size_t records = 0;
    PeerMessage message;
    while (receive(connection, message)) {
        const DataRecord& record = message.record;
        log_line(log, "data %d: %s=%s", static_cast<int>(record.kind), record.key, record.value);
        DBT key = dbt_of(record.key, strnlen(record.key, sizeof record.key));
        DBT value = dbt_of(record.value, strnlen(record.value, sizeof record.value));
        errno = db->put(db, nullptr, &key, &value, 0);
        if (errno != 0) {
            fail("put");
        }
        ++records;
    }
    return records;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        return 2;
    }
    unlink(argv[2]);
    DB* db = open_store(argv[2], DB_CREATE, CACHE_BYTES);
    const int listener = bound_socket(SOCK_STREAM, number(argv[1]));
    const int connection = need(accept(listener, nullptr, nullptr), "accept");
    const double begin = monotonic_seconds();
    const std::size_t records = store_all(connection, db, argv[3]);
    errno = db->close(db, 0);
    if (errno != 0) {
        fail("close");
    }
    std::fprintf(stderr, "%zu %.6f\n", records, monotonic_seconds() - begin);
    return 0;
}
