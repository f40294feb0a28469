// A private copy of a database file, so that a long walk neither keeps others from the file nor
// sees it change.
#pragma once

#include "owned.h"

struct Snapshot {
    int result;    // 0 or the library's error code
    OwnedFd file;  // without a name; all its records can be read where the result is 0
};

// Copies the file, which is locked for that time only. One whose copy is damaged is copied again
// after a moment: a foreign writer, which takes no lock, may be at work. Any thread; logs nothing.
Snapshot take_sound_snapshot(const char* path);
