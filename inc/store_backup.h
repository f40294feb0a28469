// Copies of database files that are kept beside the system's own.
#pragma once

#include <string>

// Puts a copy of the database `source` in the place of `target`: a new file with mode 0600 and the
// caller's own owner and group. What `target` was is replaced, not followed or changed. The source
// is locked while it is copied, and the copy verified. A kill or a power failure at any moment
// leaves the old file or the new one. The directory must not be one into which other users write.
// Returns an empty text, or why `target` stays as it was. Any thread.
std::string db_back_up(const std::string& source, const std::string& target);
