#include "store.h"

namespace {

// Enough to make a pass over them cheap, and little enough to hold in memory.
constexpr std::size_t CHUNK_RECORDS = 1000;
constexpr std::size_t CHUNK_BYTES = 256UL * 1024;

}  // namespace

RecordWalk::RecordWalk(const char* path) : store_(db_open_snapshot(path)) {
    if (store_ && store_->usable()) {
        cursor_.emplace(*store_);
    }
}

std::string RecordWalk::failure() const {
    if (!cursor_) {
        return open_failure(store_);
    }
    return cursor_->failed() ? "its records cannot be read" : "";
}

// Reuses the texts that the chunk holds.
bool RecordWalk::next_chunk(std::vector<StoredRecord>& chunk) {
    std::string_view key;
    std::string_view value;
    std::size_t records = 0;
    std::size_t bytes = 0;
    while (cursor_ && records < CHUNK_RECORDS && bytes < CHUNK_BYTES && cursor_->next(key, value)) {
        if (records == chunk.size()) {
            chunk.emplace_back();
        }
        chunk[records].key = key;
        chunk[records].value = value;
        bytes += key.size() + value.size();
        ++records;
    }
    chunk.resize(records);
    return records != 0;
}
