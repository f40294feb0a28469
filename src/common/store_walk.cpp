#include "store_walk.h"

#include <sys/stat.h>

#include <optional>

#include "store.h"

namespace {

// Enough to make opening the file once more cheap, and little enough to hold in memory.
constexpr std::size_t CHUNK_RECORDS = 1000;
constexpr std::size_t CHUNK_BYTES = 256UL * 1024;

// Fills `chunk` from the cursor, reusing the texts that it holds.
void read_chunk(StoreCursor& cursor, std::vector<StoredRecord>& chunk) {
    std::string_view key;
    std::string_view value;
    std::size_t records = 0;
    std::size_t bytes = 0;
    while (records < CHUNK_RECORDS && bytes < CHUNK_BYTES && cursor.next(key, value)) {
        if (records == chunk.size()) {
            chunk.emplace_back();
        }
        chunk[records].key = key;
        chunk[records].value = value;
        bytes += key.size() + value.size();
        ++records;
    }
    chunk.resize(records);
}

}  // namespace

bool RecordWalk::next_chunk(std::vector<StoredRecord>& chunk) {
    const std::unique_ptr<Store> store = db_open(path_.c_str());
    if (!store || !store->usable()) {
        failed_ = true;
        return false;
    }
    std::optional<StoreCursor> cursor(*store);
    struct stat status {};
    (void)stat(path_.c_str(), &status);
    const auto now =
        std::tuple(status.st_ino, status.st_size, status.st_ctim.tv_sec, status.st_ctim.tv_nsec);
    // In a file that has changed, the place of the last record may have moved beyond others.
    const bool changed = started_ && seen_ != now;
    seen_ = now;
    if (started_ && (changed || !cursor->seek(last_key_))) {
        failed_ = ++restarts_ > MAX_RESTARTS;
        if (failed_) {
            return false;
        }
        cursor.emplace(*store);
    }
    started_ = true;
    read_chunk(*cursor, chunk);
    if (chunk.empty()) {
        return false;
    }
    last_key_ = chunk.back().key;
    return true;
}
