// Owners of what the system hands out as plain integers and pointers: a descriptor and a malloc'ed
// text. Each releases what it holds when it goes out of scope, on every path.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <string_view>
#include <utility>

// A file descriptor, closed by its owner's destructor. -1 owns nothing.
class OwnedFd {
public:
    explicit OwnedFd(int fd = -1) : fd_(fd) {}
    OwnedFd(OwnedFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    OwnedFd& operator=(OwnedFd&& other) noexcept {
        reset(std::exchange(other.fd_, -1));
        return *this;
    }
    OwnedFd(const OwnedFd&) = delete;
    OwnedFd& operator=(const OwnedFd&) = delete;
    ~OwnedFd() { reset(); }

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1) {
        if (fd_ >= 0) {
            ::close(fd_);
        }
        fd_ = fd;
    }

private:
    int fd_;
};

// A text from malloc, as the lookups of the store and of the addresses return it.
struct FreeText {
    void operator()(char* text) const { std::free(text); }
};
using OwnedText = std::unique_ptr<char, FreeText>;

// The text, or the empty one for null.
inline std::string_view text_of(const OwnedText& text) {
    return text ? std::string_view(text.get()) : std::string_view();
}
