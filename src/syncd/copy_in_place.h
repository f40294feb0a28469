// Putting a finished download in the place of a server's copy, whole at every moment.
#pragma once

#include <string>

// Moves `download` over `target` (a database file of the store). A kill or a power failure at any
// moment leaves either the old copy or the new one. False, with a line at LOG_ERROR, when the old
// copy had to stay. Any thread.
bool put_copy_in_place(const std::string& download, const std::string& target);
