#include "peer_message.h"

#include <cstring>

namespace {

PeerMessage blank_message(std::uint16_t type) {
    PeerMessage message;
    std::memset(&message, 0, sizeof message);
    message.type = type;
    return message;
}

// Copies `text` into a zeroed field, leaving `reserve` bytes at its end untouched.
template <std::size_t N>
void fill_field(char (&field)[N], std::string_view text, std::size_t reserve) {
    (void)text.copy(field, N - reserve);
}

}  // namespace

PeerMessage make_heartbeat(std::string_view serverip, std::string_view dsver) {
    PeerMessage message = blank_message(MSG_HEARTBEAT);
    fill_field(message.heartbeat.serverip, serverip, 0);
    fill_field(message.heartbeat.dsver, dsver, 0);
    return message;
}

PeerMessage make_data_request(std::uint32_t kind) {
    PeerMessage message = blank_message(MSG_DATA_REQUEST);
    message.record.kind = kind;
    message.record.tag = DATA_REQUEST_TAG;
    return message;
}

PeerMessage make_beat_back(std::string_view stamps) {
    PeerMessage message = blank_message(MSG_BEAT_BACK);
    fill_field(message.record.value, stamps, 1);
    return message;
}

bool fits_data_record(std::string_view key, std::string_view value) {
    return key.size() < sizeof DataRecord::key && value.size() < sizeof DataRecord::value;
}

PeerMessage make_data_record(std::uint32_t kind, std::string_view key, std::string_view value) {
    PeerMessage message = blank_message(MSG_DATA);
    message.record.kind = kind;
    fill_field(message.record.key, key, 1);
    fill_field(message.record.value, value, 1);
    return message;
}
