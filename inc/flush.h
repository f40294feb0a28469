// Getting files and their names to the disk before something that relies on them is written.
//
// Any thread. Neither logs.
#pragma once

#include <string>

// Waits until the contents of the file are on disk. False with errno when that cannot be had.
bool flush_file(const std::string& path);

// Waits until the names in the file's directory are on disk: what was created, renamed or removed
// there. Failures are ignored; the names were changed all the same.
void flush_directory_of(const std::string& path);
