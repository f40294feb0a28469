// Whether a database file is sound enough to be handed to the library. The operations that take a
// StoreLock want it held.
#pragma once

#include <string>

#include "common/store/lock.h"

// Verifies the locked file; a verdict "sound" is kept while device, inode, size and change time
// stay the same. A file found damaged is looked at once more after a moment, since a foreign writer
// may be at work. Returns 0 or the library's error code.
int verify_store(const StoreLock& lock);

// Whether the locked file, as it is now, was found sound before.
bool verdict_known(const StoreLock& lock);

// Verifies the file that `fd` has open and `path` names, once and without a lock. 0 or the
// library's error code.
int verify_file(int fd, const std::string& path);

// Whether the error code says that a file's contents are damaged, not that the system refused.
bool is_damage(int result);

// Keeps the verdict "sound" for a large file as it is now: it was sound, and the holder of the lock
// has written to it since. Verifying a pushed client list again would take longer than storing it.
void keep_verdict(const StoreLock& lock);

// The same for a large file that was found sound under another name and now has this one.
void keep_verdict(int fd, const std::string& path);
