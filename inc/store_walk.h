// A walk over all records of a database file for users that do something slow with each, such as
// sending it. It reads a private copy of the file: nobody is kept from writing to the file
// meanwhile, and every record of the moment at which the walk began comes exactly once.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "store.h"

struct StoredRecord {
    std::string key;
    std::string value;
};

class RecordWalk {
public:
    // Copies the file, which is locked for that time only. Logs as db_open does. Not shared between
    // threads.
    explicit RecordWalk(const char* path);

    // Reads the next records into `chunk`, replacing what it held: true with some, false at the end
    // or when the file cannot be read; failed() tells which.
    bool next_chunk(std::vector<StoredRecord>& chunk);

    bool failed() const;

private:
    std::unique_ptr<Store> store_;
    std::optional<StoreCursor> cursor_;
};
