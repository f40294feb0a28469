// The one message of a server pair: a zero-filled block of 1164 bytes.
//
// A slave sends it as a UDP datagram (heartbeat, data request); the master answers over TCP (beat
// back, data records). Integers are in host byte order, texts end at the first zero byte or at the
// end of their field. The fixed size is the framing; the next heartbeat is the retry.
//
// Messages are built and read here only: nobody else counts bytes. All functions are pure and may
// be called from any thread; none of them logs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <type_traits>

#include "keys.h"

inline constexpr std::uint16_t PEER_PORT = 13233;  // the master's UDP and the slave's TCP port

// Values of PeerMessage::type. 1 is a request in a datagram and a record on a connection.
inline constexpr std::uint16_t MSG_DATA_REQUEST = 1;
inline constexpr std::uint16_t MSG_DATA = 1;
inline constexpr std::uint16_t MSG_HEARTBEAT = 2;
inline constexpr std::uint16_t MSG_BEAT_BACK = 3;

// Data sets: which database a request asks for or a record belongs to.
inline constexpr std::uint32_t DATA_KIND_ALL = 0;  // in requests only: configuration, then clients
inline constexpr std::uint32_t DATA_KIND_CONFIG = 1;
inline constexpr std::uint32_t DATA_KIND_CLIENT = 2;
inline constexpr std::uint32_t DATA_KIND_DISK = 3;  // accepted everywhere, but empty

inline constexpr std::uint32_t DATA_REQUEST_TAG = 82;  // the letter R; nobody reads it

// The key of the record that closes a data set: its value is the set's version stamp.
inline constexpr const char* DBVER_KEY = "dbver";

// Data record, data request (kind and tag only) and beat back (value only).
struct DataRecord {
    std::uint32_t kind;
    std::uint32_t tag;
    char key[MAX_RECORD_KEY + 1];
    char value[MAX_RECORD_VALUE + 1];
};

struct HeartbeatBody {
    char reserved[8];
    char serverip[32];  // the sender's own address, dotted
    char dsver[32];     // the sender's data-set version stamp; unterminated when 32 long
    char rest[1088];
};

struct PeerMessage {
    std::uint16_t type;
    std::uint16_t reserved;
    union {
        DataRecord record;
        HeartbeatBody heartbeat;
    };
};

static_assert(sizeof(DataRecord) == 1160);
static_assert(sizeof(HeartbeatBody) == 1160);
static_assert(sizeof(PeerMessage) == 1164);
static_assert(offsetof(PeerMessage, record) == 4);
static_assert(offsetof(PeerMessage, record.key) == 12);
static_assert(offsetof(PeerMessage, record.value) == 140);
static_assert(offsetof(PeerMessage, heartbeat.serverip) == 12);
static_assert(offsetof(PeerMessage, heartbeat.dsver) == 44);
static_assert(std::is_trivially_copyable_v<PeerMessage>);

// The text of a fixed field: up to its first zero byte, at most the whole field.
template <std::size_t N>
std::string_view field_text(const char (&field)[N]) {
    const std::string_view whole(field, N);
    return whole.substr(0, whole.find('\0'));
}

// A heartbeat of the server at `serverip` (dotted, may be empty) with its stamp `dsver`; both are
// cut at 32 bytes, which then carry no terminator.
PeerMessage make_heartbeat(std::string_view serverip, std::string_view dsver);

// A request for the data set `kind` (DATA_KIND_*).
PeerMessage make_data_request(std::uint32_t kind);

// The answer to a heartbeat: both stamps of the master as one text (join_stamps in stamps.h).
PeerMessage make_beat_back(std::string_view stamps);

// Whether `key` and `value` fit a data record with their terminators.
bool fits_data_record(std::string_view key, std::string_view value);

// One record of the data set `kind`. The pair must fit (fits_data_record); what does not is cut.
PeerMessage make_data_record(std::uint32_t kind, std::string_view key, std::string_view value);
