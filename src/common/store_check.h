// Whether a database file is sound enough to be handed to the library, and what stands in the way
// of creating one. The operations that take a StoreLock want it held.
#pragma once

#include <string>

#include "store_lock.h"

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

// Removes what a killed creation of `path` left behind: the library would wait 100 seconds for it
// at every further creation. One that is younger than some seconds may be another process at work:
// it is waited for, until it goes or is old.
void remove_leftover_creation(const std::string& path);

// The temporary file, "__db.<name>" beside it, under which the library creates `path`.
std::string creation_of(const std::string& path);
