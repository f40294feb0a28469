#include "flush.h"

#include <fcntl.h>
#include <unistd.h>

#include "owned.h"

bool flush_file(const std::string& path) {
    const OwnedFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    return fd.valid() && fsync(fd.get()) == 0;
}

void flush_directory_of(const std::string& path) {
    const OwnedFd directory(
        open(path.substr(0, path.rfind('/') + 1).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory.valid()) {
        (void)fsync(directory.get());
    }
}
