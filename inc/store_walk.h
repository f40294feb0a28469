// A walk over all records of a database file for users that do something slow with each, such as
// sending it: the file is locked and open only while a chunk is read, never in between.
#pragma once

#include <sys/types.h>

#include <ctime>
#include <string>
#include <tuple>
#include <vector>

struct StoredRecord {
    std::string key;
    std::string value;
};

class RecordWalk {
public:
    // `path` is opened by the first next_chunk(). Not shared between threads.
    explicit RecordWalk(const char* path) : path_(path) {}

    // Reads the next records into `chunk`, replacing what it held: true with some, false at the end
    // or when the file cannot be read; failed() tells which. When another process changes the
    // file meanwhile, the walk begins anew, so a record may come more than once; after
    // MAX_RESTARTS of that it fails. Logs as db_open does.
    bool next_chunk(std::vector<StoredRecord>& chunk);

    bool failed() const { return failed_; }

    static constexpr int MAX_RESTARTS = 16;

private:
    std::string path_;
    std::string last_key_;
    std::tuple<ino_t, off_t, time_t, long> seen_;  // the file as it was at the last chunk
    bool started_ = false;
    bool failed_ = false;
    int restarts_ = 0;
};
