// Database files damaged in any way: refused or read, never a crash, a hang or a loop.
#include "store.h"

#include <ctime>
#include <vector>

#include "fuzz.h"
#include "keys.h"
#include "owned.h"

// Nobody else writes here: the second look at a damaged file need not wait.
extern "C" int nanosleep(const timespec* /*time*/, timespec* /*rest*/) {
    return 0;
}

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    begin_fuzzing(argc, argv);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view bytes = text_of(data, size);
    put_file(CONFIG_DB, bytes);
    const OwnedText stamp(db_get(CONFIG_DB, KEY_CLIENT_VERSION));
    if (db_open(CONFIG_DB)->damaged()) {
        (void)db_put(CONFIG_DB, KEY_DSVER, "1");
        (void)db_del(CONFIG_DB, KEY_DHCP);
        expect(contents(CONFIG_DB) == bytes, "nobody writes into a damaged configuration");
    }

    put_file(CLIENT_DB, bytes);
    RecordWalk walk(CLIENT_DB);
    std::size_t records = 0;
    for (std::vector<StoredRecord> chunk; walk.next_chunk(chunk);) {
        records += chunk.size();
        expect(records <= size, "a walk ends");
    }
    (void)db_store(CLIENT_DB, "key", "value");
    const OwnedText value(db_get(CLIENT_DB, "key"));  // of some damage nobody knows
    (void)db_del(CLIENT_DB, "key");
    expect(db_replace_empty(CLIENT_DB), "any file can be emptied");
    expect(db_store(CLIENT_DB, "key", "value"), "an emptied file takes records");
    return 0;
}
