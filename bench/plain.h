// What the baseline programs and their senders share: plain system calls without any care for
// faults. Whatever fails ends the program with status 1 and the system's text.
#pragma once

#include <arpa/inet.h>
#include <db.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

#include "peer_message.h"

[[noreturn]] inline void fail(const char* what) {
    std::fprintf(stderr, "%s: %s\n", what, std::strerror(errno));
    std::exit(1);
}

// `result` unless it is negative.
inline int need(int result, const char* what) {
    return result < 0 ? (fail(what), -1) : result;
}

// A count or a port from the command line.
inline int number(const char* text) {
    return static_cast<int>(std::strtol(text, nullptr, 10));
}

inline double monotonic_seconds() {
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
}

inline sockaddr_in ipv4(const char* address, int port) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_addr.s_addr = inet_addr(address);
    result.sin_port = htons(static_cast<std::uint16_t>(port));
    return result;
}

inline const sockaddr* generic(const sockaddr_in& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

// A socket bound to `port` on every address; a stream socket listens.
inline int bound_socket(int type, int port) {
    const int fd = need(socket(AF_INET, type, 0), "socket");
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const sockaddr_in any = ipv4("0.0.0.0", port);
    need(bind(fd, generic(any), sizeof any), "bind");
    if (type == SOCK_STREAM) {
        need(listen(fd, 1024), "listen");
    }
    return fd;
}

// Whether one whole message came; false at the end of the connection.
inline bool receive(int fd, PeerMessage& message) {
    return recv(fd, &message, sizeof message, MSG_WAITALL) == sizeof message;
}

inline int text_length(const char* field, std::size_t size) {
    return static_cast<int>(strnlen(field, size));
}

// The least that the daemon's promise of one log line costs: stamped, on standard output, and in a
// file that is opened and closed for it.
template <typename... Arguments>
void log_line(const char* path, const char* format, Arguments... arguments) {
    char line[5000];
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    std::size_t length =
        std::strftime(line, sizeof line, "quorsyncd:2.1 %Y-%m-%d %H:%M:%S INFO :", &local);
    length += static_cast<std::size_t>(
        std::snprintf(line + length, sizeof line - length, format, arguments...));
    line[length++] = '\n';
    (void)!write(STDOUT_FILENO, line, length);
    const int fd = need(open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666), path);
    (void)!write(fd, line, length);
    close(fd);
}

inline DBT dbt_of(const void* data, std::size_t size) {
    DBT dbt{};
    dbt.data = const_cast<void*>(data);  // the library only reads it
    dbt.size = static_cast<u_int32_t>(size);
    return dbt;
}

// An open hash file; `cache_bytes` 0 keeps the library's small default.
inline DB* open_store(const char* path, u_int32_t flags, u_int32_t cache_bytes = 0) {
    DB* db = nullptr;
    errno = db_create(&db, nullptr, 0);
    if (errno == 0 && cache_bytes != 0) {
        errno = db->set_cachesize(db, 0, cache_bytes, 1);
    }
    if (errno == 0) {
        errno = db->open(db, nullptr, path, nullptr, DB_HASH, flags, 0664);
    }
    return errno == 0 ? db : (fail(path), nullptr);
}
