// The baseline of a fetch: receive 4096 bytes, write them.
//
//   fetch_baseline FILE HEAD COUNT
//
// Standard input is a connected socket, on which HEAD bytes come before the COUNT bytes of the
// file.
#include "plain.h"

int main(int argc, char** argv) {
    if (argc != 4) {
        return 2;
    }
    const int file = need(open(argv[1], O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0664), argv[1]);
    char buffer[4096];
    for (long head = std::strtol(argv[2], nullptr, 10); head > 0; --head) {
        need(static_cast<int>(recv(STDIN_FILENO, buffer, 1, 0)), "recv");
    }
    for (long long left = std::strtoll(argv[3], nullptr, 10); left > 0;) {
        const auto wanted = static_cast<std::size_t>(std::min<long long>(left, sizeof buffer));
        const int received = static_cast<int>(recv(STDIN_FILENO, buffer, wanted, MSG_WAITALL));
        if (need(received, "recv") == 0) {
            errno = EPIPE;
            fail("a file that breaks off");
        }
        need(static_cast<int>(write(file, buffer, static_cast<std::size_t>(received))), argv[1]);
        left -= received;
    }
    return 0;
}
