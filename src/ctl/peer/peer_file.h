// Files of the other server, fetched through its file service. It is asked for a file by its path;
// which files it hands out is up to the service. The daemon itself fetches config.db only.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "PK_Request_Client.h"
#include "ctl/console.h"
#include "owned.h"

// What to do about a fetch that failed, in words that end a complaint; `local` is the file that was
// to be written, `limits` are those of the fetch.
std::string fetch_failure_text(const std::string& address, const std::string& remote,
                               const std::string& local, const FileFetch& fetch,
                               const FetchLimits& limits);

// Tells the bar of each piece.
FetchProgress shown_by(ProgressBar& bar);

// Fetches that somebody waits for with a prompt: a few seconds in all.
struct ProbeLimits {
    static constexpr std::uint32_t TIMEOUT = 3;  // seconds; of connecting and of each receive
    static constexpr FetchLimits FETCH{.bytes = std::int64_t{16} << 20U,
                                       .base = std::chrono::milliseconds(6'000)};
};

// Limits of a fetch by hand, which may be of a whole client list: on a terminal, where whoever
// waits sees how it goes, there is no time limit but that of each receive; for a script, that of
// `limits`.
FetchLimits limits_by_hand(FetchLimits limits);

struct PeerFile {
    OwnedFd file;         // has no name anywhere: it goes with this process, however that ends
    FileFetch fetch;      // what became of the fetch
    std::string failure;  // why there is no sound database in the file; empty when there is

    // The path under which this process opens the file.
    std::string path() const;
};

// Fetches a database and verifies it: with `brief` within ProbeLimits, otherwise by hand, within
// the time of a probe for a script, and with a progress bar.
PeerFile fetch_peer_file(const std::string& address, const std::string& remote, bool brief);

// A value of --peer without an address.
inline constexpr const char* OTHER_SERVER = "other";

// The address that --peer names: itself, or that of the other server by the settings of this host.
// Throws WrongUse where it is no address of another host.
std::string peer_address(const std::string& option);
