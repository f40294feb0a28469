#include "peer_message.h"

#include <algorithm>
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
    std::memcpy(field, text.data(), std::min(text.size(), N - reserve));
}

}  // namespace

std::string_view comparable_stamp(std::string_view stamp) {
    // Other tools may have stored the terminating zero byte with the text.
    return stamp.substr(0, std::min(MAX_STAMP, stamp.find('\0')));
}

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

PeerMessage make_beat_back(std::string_view config_stamp, std::string_view client_stamp) {
    PeerMessage message = blank_message(MSG_BEAT_BACK);
    std::string value(comparable_stamp(config_stamp));
    value += '#';
    value += comparable_stamp(client_stamp);
    fill_field(message.record.value, value, 1);
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

VersionStamps split_stamps(std::string_view beat_back_value) {
    const std::size_t separator = beat_back_value.find('#');
    const bool found = separator != std::string_view::npos;
    const std::string_view client =
        found ? beat_back_value.substr(separator + 1) : std::string_view();
    return {std::string(comparable_stamp(beat_back_value.substr(0, separator))),
            std::string(comparable_stamp(client)), found};
}
