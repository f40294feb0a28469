// The daily logs of a directory, those that have been rotated and packed among them, and the parts
// of them that are to be read.
#pragma once

#include <sys/types.h>
#include <zlib.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "log_time.h"
#include "owned.h"

// A daily log from the offset `begin` on; a packed one is read from its start.
struct DailyLog {
    std::string path;
    LogTime day;  // its first second
    bool packed;  // by gzip
    int age;      // 0 for the file that the daemon writes, higher for one that was rotated earlier
    off_t begin = 0;
};

// The logs in `directory`, oldest first. Sets errno and yields nothing when it cannot be read.
std::optional<std::vector<DailyLog>> daily_logs(const std::string& directory);

// Has the log begin as late as can be told without reading it: all lines before that are older than
// `since`. It may begin up to two hours of log too early. The clock may have been set back: by two
// hours, or by more where at least a sixty-fourth of the log had been written ahead of the time.
void begin_at(DailyLog& log, LogTime since);

// Leaves the last `bytes` of the logs, which are in their order, or more where they are packed.
std::vector<DailyLog> last_part(std::vector<DailyLog> logs, off_t bytes);

// The bytes of a log, unpacked.
class LogBytes {
public:
    explicit LogBytes(const DailyLog& log);

    bool valid() const { return fd_.valid() || packed_ != nullptr; }

    // As read(2). EBADMSG where a packed log is damaged or ends too early, EFBIG where it unpacks
    // to more than 4 GiB.
    ssize_t read(char* to, std::size_t size);

private:
    ssize_t read_packed(char* to, std::size_t size);

    struct Close {
        void operator()(gzFile file) const { (void)gzclose_r(file); }
    };

    OwnedFd fd_;
    std::unique_ptr<gzFile_s, Close> packed_;
    std::int64_t unpacked_ = 0;  // bytes
};
