// The baseline of a heartbeat's answer: receive a datagram, read three keys, write four log lines,
// connect back, send one message, shut down, close.
//
//   beat_baseline PORT DATABASE LOG COUNT
//
// Ends after COUNT datagrams.
#include <string>

#include "plain.h"

namespace {

constexpr const char* KEYS[] = {"dsver", "config_db_version", "client_db_version"};

std::string read_key(const char* path, const char* name) {
    DB* db = open_store(path, DB_RDONLY);
    DBT key = dbt_of(name, std::strlen(name));
    DBT value{};
    std::string text;
    if (db->get(db, nullptr, &key, &value, 0) == 0) {
        text.assign(static_cast<const char*>(value.data), value.size);
    }
    db->close(db, 0);
    return text;
}

void answer(const char* address, const PeerMessage& message) {
    const int fd = need(socket(AF_INET, SOCK_STREAM, 0), "socket");
    const sockaddr_in peer = ipv4(address, PEER_PORT);
    need(connect(fd, generic(peer), sizeof peer), "connect");
    (void)send(fd, &message, sizeof message, MSG_NOSIGNAL);
    shutdown(fd, SHUT_RDWR);
    close(fd);
}

void serve_one(int fd, const char* database, const char* log) {
    PeerMessage message;
    sockaddr_in sender{};
    socklen_t length = sizeof sender;
    if (recvfrom(fd, &message, sizeof message, 0, reinterpret_cast<sockaddr*>(&sender), &length) <
        0) {
        fail("recvfrom");
    }
    std::memset(&message, 0, sizeof message);
    message.type = MSG_BEAT_BACK;
    std::string value;
    for (const char* key : KEYS) {
        value += '#' + read_key(database, key);
        log_line(log, "read %s from %s", key, database);
    }
    std::memcpy(message.record.value, value.data(),
                std::min(value.size(), sizeof message.record.value - 1));
    const char* address = inet_ntoa(sender.sin_addr);
    log_line(log, "beat back to %s :%s", address, message.record.value);
    answer(address, message);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        return 2;
    }
    const int fd = bound_socket(SOCK_DGRAM, number(argv[1]));
    for (int count = number(argv[4]); count > 0; --count) {
        serve_one(fd, argv[2], argv[3]);
    }
    return 0;
}
