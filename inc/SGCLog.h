// The rolling debug log "/var/log/quorsyncd.log": a size-limited copy of every message, for field
// engineers. It is switched on by the marker file "/var/log/quorsyncd.cfg", which is looked at
// once, when the log is built at the first message; a change takes effect at the next start.
#pragma once

#include <log4cplus/logger.h>

#include <string_view>

class SGCLog {
public:
    // Attaches the rolling file (2 MiB, five backups, local time) to the library's root logger. The
    // file is created even when the log stays off. Never fails its caller.
    SGCLog();

    // Writes `message` at DEBUG level when the log is on. Any thread. Flushed by the library when
    // its buffer is full, and by close().
    void printDebug(std::string_view message);

    // Writes out what is buffered and closes the file; later messages are dropped. Any thread.
    void close();

private:
    log4cplus::Logger logger;
    bool enabled = false;
};
