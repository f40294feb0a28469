#include <utility>

#include "common/store/page_walk.h"
#include "common/store/snapshot.h"
#include "log.h"
#include "store.h"

namespace {

// Enough to make a pass over them cheap, and little enough to hold in memory.
constexpr std::size_t CHUNK_RECORDS = 1000;
constexpr std::size_t CHUNK_BYTES = 256UL * 1024;

}  // namespace

RecordWalk::RecordWalk(const char* path) {
    Snapshot snapshot = take_sound_snapshot(path);
    if (snapshot.result != 0) {
        failure_ = log_failure(msg::STORE_NOT_OPENED, store_error_text(snapshot.result), path);
        return;
    }
    copy_ = std::move(snapshot.file);
    pages_ = std::make_unique<PageWalk>(copy_.get());
}

RecordWalk::~RecordWalk() = default;

std::string RecordWalk::failure() const {
    return pages_ && pages_->error() != 0 ? "its records cannot be read" : failure_;
}

// Reuses the texts that the chunk holds.
bool RecordWalk::next_chunk(std::vector<StoredRecord>& chunk) {
    std::string_view key;
    std::string_view value;
    std::size_t records = 0;
    std::size_t bytes = 0;
    while (pages_ && records < CHUNK_RECORDS && bytes < CHUNK_BYTES && pages_->next(key, value)) {
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
