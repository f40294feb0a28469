#include "common/journal.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "log.h"
#include "owned.h"

namespace {

constexpr std::array<char, 4> PRIORITIES = {'7', '6', '3', '2'};  // of syslog, by LOG_*
constexpr char NOTICE = '5';                                      // of any other level

char priority_of(int level) {
    return level >= LOG_DEBUG && level <= LOG_FATAL ? PRIORITIES[static_cast<std::size_t>(level)]
                                                    : NOTICE;
}

// One entry: a field a line, but for the message, whose length is told since it may have newlines.
std::string entry_of(int level, std::string_view line) {
    std::array<char, sizeof(std::uint64_t)> size{};
    for (std::size_t n = 0; n < size.size(); ++n) {
        size[n] = static_cast<char>(line.size() >> (8 * n) & 0xffU);
    }
    std::string entry = "PRIORITY=";
    entry += priority_of(level);
    entry += "\nSYSLOG_IDENTIFIER=";
    entry += PROGRAM_NAME;
    entry += "\nMESSAGE\n";
    entry.append(size.data(), size.size()).append(line) += '\n';
    return entry;
}

// Writes the line to standard error, which may be a socket of the journal, too: never waits.
void print_error(std::string_view line) {
    const std::string text = std::string(line) + '\n';
    pollfd out{.fd = STDERR_FILENO, .events = POLLOUT, .revents = 0};
    if (poll(&out, 1, 0) == 1 &&
        send(STDERR_FILENO, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL) < 0 &&
        errno == ENOTSOCK) {
        (void)!write(STDERR_FILENO, text.data(), text.size());
    }
}

}  // namespace

void send_to_journal(int level, std::string_view line) {
    const char* path = std::getenv(JOURNAL_VARIABLE);
    sockaddr_un journal{};
    journal.sun_family = AF_UNIX;
    if (path == nullptr ||
        std::string_view(path).copy(journal.sun_path, sizeof journal.sun_path - 1) == 0) {
        return;
    }
    if (line.ends_with('\n')) {
        line.remove_suffix(1);
    }
    const std::string entry = entry_of(level, line);
    const OwnedFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const ssize_t sent = sendto(fd.get(), entry.data(), entry.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                                reinterpret_cast<const sockaddr*>(&journal), sizeof journal);
    if (sent < 0 && (level == LOG_ERROR || level == LOG_FATAL)) {
        print_error(line);
    }
}
