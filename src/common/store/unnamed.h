// Contents of files, and files without a name of their own.
#pragma once

#include <string>
#include <string_view>

#include "owned.h"

// A name under which the library can open the file: it stays good for one that has no other.
std::string name_of(const OwnedFd& file);

// Each returns whether all went well, and leaves errno otherwise. Those that write begin where the
// descriptor stands.
bool copy_contents(int from, int to);
bool read_contents(int fd, std::string& contents);
bool write_contents(int fd, std::string_view contents);

// Whether these are the contents of the file, from its beginning to its end.
bool has_contents(int fd, std::string_view contents);
