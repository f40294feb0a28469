// One request to a peer's file service, and the fetch of a file that follows on its connection.
//
// Request:  16-byte header (business id, 0, 0, body size), encoded body.
// Response: 20-byte header (0, 0, error code, 0, body size), encoded body.
// Integers are in host byte order; bodies are texts in the form of body_codec.h.
//
// One object per job and thread. Each failure is logged once.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "PK_Socket.h"

inline constexpr int REQUEST_NO_MEMORY = 0x1001;
inline constexpr int REQUEST_NO_CONNECTION = 0x1002;
inline constexpr int REQUEST_BROKEN =
    0x1003;  // a send or receive was short, or the reply too large

inline constexpr std::uint32_t FILE_SERVICE_PORT = 3223;
inline constexpr std::uint32_t BUSINESS_GET_FILE = 0x8008;

// What a peer may make a fetch cost, beside its time-outs.
struct FetchLimits {
    std::int64_t bytes = std::int64_t{64} << 20U;  // the longest file
    std::chrono::milliseconds base{60'000};        // for an empty one, from request to end
    std::chrono::milliseconds per_mib{1'000};      // more for each MiB that is announced

    // From the request to the last byte of a file of that many bytes.
    std::chrono::milliseconds time_for(std::int64_t length) const {
        return base + per_mib * (length >> 20U);
    }
};

class PK_Request_Client {
public:
    void SetPort(std::uint32_t port) { port_ = port; }

    // Time-out of connecting and of every send and receive, in seconds.
    void SetTimeout(std::uint32_t seconds) { timeout_ = seconds; }

    // Limits of the fetches that follow.
    void SetFetchLimits(const FetchLimits& limits) { fetch_limits_ = limits; }
    const FetchLimits& fetch_limits() const { return fetch_limits_; }

    // Sends `szCommand` to the service at `szIP` (dotted) and reads the reply into `szRetMsg` (a
    // buffer of `nRetSize` bytes; the text is terminated). 0, then `*nErrCode` is the peer's error
    // code, or one of REQUEST_*. A reply without a body leaves `szRetMsg` untouched. The
    // connection stays open for what follows; Close ends it. Logs request and reply.
    int Hpc_RequestPro_NoClose(const char* szIP, std::uint32_t dwBusinessId, const char* szCommand,
                               char* szRetMsg, std::int32_t nRetSize, std::int32_t* nErrCode);

    // The same, then closes the connection.
    int Hpc_RequestPro(const char* szIP, std::uint32_t dwBusinessId, const char* szCommand,
                       char* szRetMsg, std::int32_t nRetSize, std::int32_t* nErrCode);

    // More of the open connection; as PK_Socket's operations.
    void SetDeadline(std::optional<std::chrono::steady_clock::time_point> deadline) {
        socket_.SetDeadline(deadline);
    }
    int RecvAll(void* buffer, std::int32_t length) { return socket_.RecvAll(buffer, length); }
    int Close() { return socket_.Close(); }

    // Why the last request failed: the line that was logged; empty when it did not.
    const std::string& failure() const { return failure_; }

    // The errno with which the last request could not connect, EINPROGRESS for a time-out; 0 when
    // it could.
    int connect_error() const { return connect_error_; }

private:
    int send_request(std::uint32_t dwBusinessId, const char* szCommand);
    int recv_reply(char* szRetMsg, std::int32_t nRetSize, std::int32_t* nErrCode);
    bool send_part(const void* data, std::int32_t size);

    PK_Socket socket_;
    std::string failure_;
    int connect_error_ = 0;
    std::uint32_t port_ = 3232;
    std::uint32_t timeout_ = 5;
    FetchLimits fetch_limits_;
};

// Results of a fetch.
inline constexpr std::int32_t FETCH_WHOLE = 0;
inline constexpr std::int32_t FETCH_NOT_BEGUN = -1;  // no connection, request, reply or local file
inline constexpr std::int32_t FETCH_REFUSED = -2;    // an error of the peer
// A reply without a usable "length", one beyond the client's limits, or a short write.
inline constexpr std::int32_t FETCH_NOT_KEPT = -3;
inline constexpr std::int32_t FETCH_CUT = -4;  // a short receive, as at the end of the time allowed
inline constexpr std::int32_t FETCH_NULL_TEXT = -77;

// What became of a fetch.
struct FileFetch {
    std::int32_t result = FETCH_WHOLE;
    std::int32_t peer_error = 0;  // the peer's own number, with FETCH_REFUSED
    int connect_error = 0;        // with FETCH_NOT_BEGUN; as PK_Request_Client::connect_error()
    std::int64_t length = 0;      // in bytes, as the peer announced it; 0 before it did
    std::int64_t received = 0;    // bytes that are in the local file
    bool too_slow = false;        // with FETCH_CUT: a time-out, or the time allowed, was over
    std::string failure;          // the line that was logged, with FETCH_NOT_BEGUN
};

// Is told with each piece how many bytes have come, and of how many; in the caller's thread.
using FetchProgress = std::function<void(std::int64_t received, std::int64_t length)>;

// GetServerFile with all that is known of its outcome. `progress` may be empty; no text is null.
FileFetch fetch_server_file(PK_Request_Client& client, const char* server, const char* server_path,
                            const char* local_path, const FetchProgress& progress = {});

// The same into `fd`, an empty file of the caller's that is open for writing and stays open.
FileFetch fetch_server_file(PK_Request_Client& client, const char* server, const char* server_path,
                            int fd, const FetchProgress& progress = {});

// Fetches `szServerFilePath` of the server at `szServerIp` (dotted) into `szLocalPath`. One of
// the results above. What arrived before a failure stays in the local file. The connection stays
// open.
std::int32_t GetServerFile(PK_Request_Client& client, const char* szServerIp,
                           const char* szServerFilePath, const char* szLocalPath);

// Receives `length` raw bytes of the client's connection into `szPath`, which then holds just what
// arrived. What is there but is no ordinary file of this user with one name is refused and left as
// it is. One of the results above.
std::int32_t recv_file(PK_Request_Client& client, std::int64_t length, const char* szPath);
