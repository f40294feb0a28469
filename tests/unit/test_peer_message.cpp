#include <utility>

#include "peer_message.h"
#include "support.h"

namespace {

std::string bytes_of(const PeerMessage& message) {
    return {reinterpret_cast<const char*>(&message), sizeof message};
}

// A zero-filled block with these pieces at their offsets.
std::string block(std::initializer_list<std::pair<std::size_t, std::string>> pieces) {
    std::string bytes(1164, '\0');
    for (const auto& [offset, text] : pieces) {
        bytes.replace(offset, text.size(), text);
    }
    return bytes;
}

const std::string A40(40, 'a');
const std::string B40(40, 'b');

TEST(PeerMessage, LiesOnTheWireAsAgreed) {
    EXPECT_EQ(bytes_of(make_heartbeat("192.168.0.2", "20261116035226")),
              block({{0, "\2"}, {12, "192.168.0.2"}, {44, "20261116035226"}}));
    EXPECT_EQ(bytes_of(make_data_request(DATA_KIND_CLIENT)),
              block({{0, "\1"}, {4, "\2"}, {8, "R"}}));
    EXPECT_EQ(bytes_of(make_beat_back("v7#v9")), block({{0, "\3"}, {140, "v7#v9"}}));
    EXPECT_EQ(bytes_of(make_data_record(DATA_KIND_CONFIG, "dhcpcfg", "x=1")),
              block({{0, "\1"}, {4, "\1"}, {12, "dhcpcfg"}, {140, "x=1"}}));
}

TEST(PeerMessage, FieldsOfAHeartbeatHoldTheirFullWidthAndNoMore) {
    const PeerMessage message = make_heartbeat(A40, B40);
    EXPECT_EQ(bytes_of(message),
              block({{0, "\2"}, {12, A40.substr(0, 32)}, {44, B40.substr(0, 32)}}));
    EXPECT_EQ(field_text(message.heartbeat.serverip), A40.substr(0, 32));
    EXPECT_EQ(field_text(message.heartbeat.dsver), B40.substr(0, 32));
}

TEST(PeerMessage, ARecordThatFitsTravelsWhole) {
    const std::string key(127, 'k');
    const std::string value(1023, 'v');
    EXPECT_TRUE(fits_data_record(key, value));
    EXPECT_FALSE(fits_data_record(key + "k", value));
    EXPECT_FALSE(fits_data_record(key, value + "v"));
    const auto whole = block({{0, "\1"}, {4, "\2"}, {12, key}, {140, value}});
    EXPECT_EQ(bytes_of(make_data_record(DATA_KIND_CLIENT, key, value)), whole);
    // One that does not fit still ends inside its fields.
    EXPECT_EQ(bytes_of(make_data_record(DATA_KIND_CLIENT, key + "kk", value + "vv")), whole);
}

}  // namespace
