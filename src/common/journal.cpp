#include "common/journal.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <array>
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
    (void)sendto(fd.get(), entry.data(), entry.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                 reinterpret_cast<const sockaddr*>(&journal), sizeof journal);
}
