// Feeds store_baseline: reads all records of a database into finished messages, in the order in
// which the daemon's push walks them, and then does nothing but send them, one call for each.
//
//   record_sender ADDRESS PORT DATABASE
#include <vector>

#include "plain.h"

namespace {

std::vector<PeerMessage> prepared_messages(const char* path) {
    std::vector<PeerMessage> messages;
    DB* db = open_store(path, DB_RDONLY);
    DBC* cursor = nullptr;
    errno = db->cursor(db, nullptr, &cursor, 0);
    if (errno != 0) {
        fail("cursor");
    }
    DBT key{};
    DBT value{};
    while (cursor->c_get(cursor, &key, &value, DB_NEXT) == 0) {
        PeerMessage& message = messages.emplace_back();
        std::memset(&message, 0, sizeof message);
        message.type = MSG_DATA;
        message.record.kind = DATA_KIND_CLIENT;
        std::memcpy(message.record.key, key.data,
                    std::min<std::size_t>(key.size, sizeof message.record.key - 1));
        std::memcpy(message.record.value, value.data,
                    std::min<std::size_t>(value.size, sizeof message.record.value - 1));
    }
    cursor->c_close(cursor);
    db->close(db, 0);
    return messages;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        return 2;
    }
    const std::vector<PeerMessage> messages = prepared_messages(argv[3]);
    const int fd = need(socket(AF_INET, SOCK_STREAM, 0), "socket");
    const sockaddr_in receiver = ipv4(argv[1], number(argv[2]));
    need(connect(fd, generic(receiver), sizeof receiver), "connect");
    for (const PeerMessage& message : messages) {
        if (send(fd, &message, sizeof message, MSG_NOSIGNAL) != sizeof message) {
            fail("send");
        }
    }
    return 0;
}
