// A new file beside another one, in whose place it is to be put.
#pragma once

#include <sys/stat.h>

#include <string>

#include "owned.h"

// Empty and locked as a database file is. Each writer has a name of its
// own, also one that does not have the lock of `target`; what killed ones have left goes.
class FreshFile {
public:
    // `mode` less the umask.
    explicit FreshFile(const std::string& target, mode_t mode = 0600);

    // Removes it, unless it was kept.
    ~FreshFile();
    FreshFile(const FreshFile&) = delete;
    FreshFile& operator=(const FreshFile&) = delete;

    // 0, or why there is none.
    int error() const { return error_; }

    int fd() const { return file_.get(); }
    const std::string& path() const { return path_; }

    // It has another name now.
    void keep() { path_.clear(); }

private:
    bool create(const std::string& path, mode_t mode);

    OwnedFd file_;
    std::string path_;
    int error_ = 0;
};

// Gives `target` mode, owner and group of the model. Where the system refuses the owner, the mode
// is without setuid and setgid and, unless it grants the group, without the group's permissions. 0
// or an errno, that of the owner first.
int copy_mode_and_owner(int target, const struct stat& model);
