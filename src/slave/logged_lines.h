// The line numbers in the slave's messages. They are part of the texts, which scripts at the sites
// match word for word, and so they do not follow the sources: each stays as it was first shipped.
#pragma once

inline constexpr int LINE_CONFIG_DIFFERS = 97;  // data_sync_trigger
inline constexpr int LINE_CLIENTS_DIFFER = 105;
inline constexpr int LINE_CANNOT_LISTEN = 237;  // slave_thread
inline constexpr int LINE_CANNOT_ACCEPT = 250;
inline constexpr int LINE_RECEIVER_ENDS = 292;
inline constexpr int LINE_HEARTBEAT_NOT_SENT = 290;  // Beat::send
inline constexpr int LINE_REQUEST_AHEAD = 323;       // start_data_sync
inline constexpr int LINE_DATA_NOT_REQUESTED = 343;
