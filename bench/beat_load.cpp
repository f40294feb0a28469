// Keeps a master busy: sends heartbeats from one socket and accepts the answers. A few are always
// under way, so that the master never waits and its datagram buffer never overflows.
//
//   beat_load ADDRESS PORT COUNT SERVERIP DSVER
//
// SERVERIP and DSVER go into the heartbeats, so that the master finds nothing new in them.
// Prints the seconds from the first heartbeat to the last whole answer on standard error.
#include <poll.h>

#include "plain.h"

namespace {

constexpr int UNDER_WAY = 8;
constexpr int PATIENCE_MILLISECONDS = 10000;

PeerMessage heartbeat_of(const char* serverip, const char* dsver) {
    PeerMessage message;
    std::memset(&message, 0, sizeof message);
    message.type = MSG_HEARTBEAT;
    HeartbeatBody& body = message.heartbeat;
    std::memcpy(body.serverip, serverip, strnlen(serverip, sizeof body.serverip));
    std::memcpy(body.dsver, dsver, strnlen(dsver, sizeof body.dsver));
    return message;
}

void send_to(int fd, const sockaddr_in& master, const PeerMessage& message) {
    need(static_cast<int>(sendto(fd, &message, sizeof message, 0, generic(master), sizeof master)),
         "sendto");
}

void take_answer(int listener) {
    pollfd waits{listener, POLLIN, 0};
    if (poll(&waits, 1, PATIENCE_MILLISECONDS) != 1) {
        errno = ETIMEDOUT;
        fail("waiting for an answer");
    }
    const int connection = need(accept(listener, nullptr, nullptr), "accept");
    PeerMessage message;
    if (!receive(connection, message) || message.type != MSG_BEAT_BACK) {
        errno = EBADMSG;
        fail("answer");
    }
    close(connection);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 6) {
        return 2;
    }
    const int listener = bound_socket(SOCK_STREAM, PEER_PORT);
    const int fd = need(socket(AF_INET, SOCK_DGRAM, 0), "socket");
    const sockaddr_in master = ipv4(argv[1], number(argv[2]));
    const int count = number(argv[3]);
    const PeerMessage heartbeat = heartbeat_of(argv[4], argv[5]);
    const double begin = monotonic_seconds();
    for (int sent = 0, answered = 0; answered < count; ++answered) {
        while (sent < count && sent - answered < UNDER_WAY) {
            send_to(fd, master, heartbeat);
            ++sent;
        }
        take_answer(listener);
    }
    std::fprintf(stderr, "%.6f\n", monotonic_seconds() - begin);
    return 0;
}
