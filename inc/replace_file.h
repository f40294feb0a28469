// Putting a file in the place of another one, so that every reader, and the disk after a kill or a
// power failure at any moment, has the old file or the new one: never a part and never none.
//
// Any thread, but one replacement of a target at a time. Nothing here logs.
#pragma once

#include <functional>
#include <string>

// What became of a replacement. With `in_place` and an error, the new file has the name, but a
// power failure may still bring the old one back.
struct [[nodiscard]] Replacement {
    bool in_place;
    int error;  // 0, or what the first failed step reported: an errno, or a code of the caller's
};

// Makes the new contents in a file of that name, which does not exist yet. 0 or an error code.
using FillFile = std::function<int(const std::string& fresh)>;

// Gives the finished file its new name, under a lock of the caller's for example. 0 or an errno.
using RenameFile = std::function<int(const std::string& from, const std::string& to)>;

// rename(2): 0 or its errno.
int rename_file(const std::string& from, const std::string& to);

// Fills "<target>.new", flushes it, renames it over `target` and flushes the directory. Where it
// does not come to the rename, the fresh file is removed again. Mode and owner are up to `fill`.
Replacement replace_file(const std::string& target, const FillFile& fill,
                         const RenameFile& rename = rename_file);

// The same with a name of the caller's, on the same file system, for the fresh file: what has it is
// removed.
Replacement replace_file_by(const std::string& fresh, const std::string& target,
                            const FillFile& fill, const RenameFile& rename = rename_file);

// The same with a finished file of the same file system (EXDEV otherwise), which stays where it is
// when it cannot be renamed.
Replacement move_in_place(const std::string& source, const std::string& target,
                          const RenameFile& rename = rename_file);

// Waits until the names in the file's directory are on disk: what was created, renamed or removed
// there. 0 or an errno; the names were changed all the same.
int flush_directory_of(const std::string& path);
