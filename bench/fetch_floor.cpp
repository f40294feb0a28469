// The floor below the fetch of a file: receive 4096 bytes, write them.
//
//   fetch_floor FILE HEAD COUNT
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
    for (int head = std::atoi(argv[2]); head > 0; --head) {
        need(static_cast<int>(recv(STDIN_FILENO, buffer, 1, 0)), "recv");
    }
    for (long long left = std::atoll(argv[3]); left > 0;) {
        const int received = static_cast<int>(recv(STDIN_FILENO, buffer, sizeof buffer, 0));
        if (need(received, "recv") == 0) {
            errno = EPIPE;
            fail("a file that breaks off");
        }
        need(static_cast<int>(write(file, buffer, static_cast<std::size_t>(received))), argv[1]);
        left -= received;
    }
    return 0;
}
