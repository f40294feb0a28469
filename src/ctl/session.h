// How the tool uses the daemon's library.
//
// Nothing that the library logs reaches the tool's standard output. A verb that only reads leaves
// no trace: missing files are not created and nothing is logged anywhere. One that changes
// something logs into the daily file as the daemon does, so that it is seen beside the daemon's own
// lines.
#pragma once

#include <array>

#include "owned.h"

// The tool only reads from now on; called once, before any verb runs.
void begin_inspection();

// The tool changes something from now on.
void begin_changes();

// While one of these exists, programs that are started get /dev/null in place of the tool's own
// streams: a boot service that kept a pipe or a terminal open would make its reader wait for ever.
class DetachedPrograms {
public:
    DetachedPrograms();
    ~DetachedPrograms();
    DetachedPrograms(const DetachedPrograms&) = delete;
    DetachedPrograms& operator=(const DetachedPrograms&) = delete;

private:
    std::array<OwnedFd, 3> streams_;
};
