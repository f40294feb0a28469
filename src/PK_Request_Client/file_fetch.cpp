#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
#include <optional>

#include <json-c/json.h>

#include "PK_File.h"
#include "PK_Request_Client.h"
#include "log.h"
#include "owned_json.h"

namespace {

constexpr const char* ORIGIN = "src/PK_Request_Client";
constexpr std::int32_t REPLY_SIZE = 1024;
constexpr std::int64_t CHUNK_SIZE = 4096;

OwnedJson make_request(const char* path) {
    OwnedJson request(json_object_new_object());
    json_object_object_add(request.get(), "action", json_object_new_string("get-file"));
    json_object_object_add(request.get(), "path", json_object_new_string(path));
    return request;
}

// The member "length" as a number. A reply in which none can be found must not become an empty
// file.
std::optional<std::int64_t> length_in(json_object* reply) {
    json_object* member = json_object_is_type(reply, json_type_object)
                              ? json_object_object_get(reply, "length")
                              : nullptr;
    const char* text = member != nullptr ? json_object_get_string(member) : nullptr;
    if (text == nullptr) {
        return std::nullopt;
    }
    char* end = nullptr;
    errno = 0;
    const long long length = std::strtoll(text, &end, 10);
    if (end == text || length < 0 || errno == ERANGE) {
        return std::nullopt;
    }
    return length;
}

using Clock = std::chrono::steady_clock;

// Whether a file of that length may come; then the connection gets its deadline.
bool admit_length(PK_Request_Client& client, Clock::time_point asked, std::int64_t length) {
    const FetchLimits& limits = client.fetch_limits();
    if (length > limits.bytes) {
        log_message(msg::LENGTH_TOO_LARGE, static_cast<long>(length),
                    static_cast<long>(limits.bytes), ORIGIN, __LINE__);
        return false;
    }
    client.SetDeadline(asked + limits.time_for(length));
    return true;
}

// Writes bytes at an offset: how many, or -1 with errno.
using WriteAt = std::function<ssize_t(const void*, std::size_t, std::int64_t)>;

// Receives `fetch.length` bytes into the file.
std::int32_t recv_into(PK_Request_Client& client, const WriteAt& write, FileFetch& fetch,
                       const FetchProgress& progress) {
    std::array<char, CHUNK_SIZE> buffer;
    while (fetch.received < fetch.length) {
        const auto chunk =
            static_cast<std::int32_t>(std::min(fetch.length - fetch.received, CHUNK_SIZE));
        errno = 0;  // the end of the stream sets none
        const int received = client.RecvAll(buffer.data(), chunk);
        if (received != chunk) {
            fetch.too_slow = errno == ETIMEDOUT || errno == EAGAIN;  // the deadline, or silence
            log_message(msg::DOWNLOAD_CUT, received, chunk, errno, ORIGIN, "recv_file", __LINE__);
            return FETCH_CUT;
        }
        const ssize_t written =
            write(buffer.data(), static_cast<std::size_t>(chunk), fetch.received);
        if (written != chunk) {
            log_message(msg::DOWNLOAD_NOT_WRITTEN, static_cast<int>(written), chunk, errno, ORIGIN,
                        "recv_file", __LINE__);
            return FETCH_NOT_KEPT;
        }
        fetch.received += chunk;
        if (progress) {
            progress(fetch.received, fetch.length);
        }
    }
    return 0;
}

std::int32_t recv_announced(PK_Request_Client& client, const char* path, FileFetch& fetch,
                            const FetchProgress& progress) {
    PK_File file;
    if (file.OpenRwEmpty(path) != 0) {
        fetch.failure = log_failure(msg::DOWNLOAD_NOT_OPENED, path, ORIGIN, __LINE__);
        return FETCH_NOT_BEGUN;
    }
    const auto write = [&file](const void* bytes, std::size_t count, std::int64_t offset) {
        return file.Write(bytes, count, offset);
    };
    return recv_into(client, write, fetch, progress);
}

// Reads the length out of the peer's reply.
std::int32_t take_length(PK_Request_Client& client, Clock::time_point asked, const char* reply,
                         FileFetch& fetch) {
    const OwnedJson parsed(json_tokener_parse(reply));
    if (!parsed) {
        log_message(msg::REPLY_NOT_JSON, reply, ORIGIN, __LINE__);
        return FETCH_NOT_KEPT;
    }
    const auto length = length_in(parsed.get());
    if (!length) {
        log_message(msg::REPLY_WITHOUT_LENGTH, reply, ORIGIN, __LINE__);
        return FETCH_NOT_KEPT;
    }
    fetch.length = *length;
    return admit_length(client, asked, *length) ? 0 : FETCH_NOT_KEPT;
}

// Asks for the file; the reply tells its length.
std::int32_t request_file(PK_Request_Client& client, const char* server, const char* server_path,
                          FileFetch& fetch) {
    const OwnedJson request = make_request(server_path);
    client.SetPort(FILE_SERVICE_PORT);
    const Clock::time_point asked = Clock::now();
    client.SetDeadline(asked + client.fetch_limits().time_for(0));
    std::array<char, REPLY_SIZE> reply{};  // zeroed: an answer may come without a body
    if (client.Hpc_RequestPro_NoClose(server, BUSINESS_GET_FILE,
                                      json_object_to_json_string(request.get()), reply.data(),
                                      REPLY_SIZE, &fetch.peer_error) != 0) {
        fetch.failure = client.failure();
        fetch.connect_error = client.connect_error();
        return FETCH_NOT_BEGUN;
    }
    if (fetch.peer_error != 0) {
        log_message(msg::SERVICE_REFUSED, fetch.peer_error, server, server_path, ORIGIN, __LINE__);
        return FETCH_REFUSED;
    }
    return take_length(client, asked, reply.data(), fetch);
}

}  // namespace

FileFetch fetch_server_file(PK_Request_Client& client, const char* server, const char* server_path,
                            const char* local_path, const FetchProgress& progress) {
    FileFetch fetch;
    fetch.result = request_file(client, server, server_path, fetch);
    if (fetch.result == 0) {
        fetch.result = recv_announced(client, local_path, fetch, progress);
    }
    return fetch;
}

FileFetch fetch_server_file(PK_Request_Client& client, const char* server, const char* server_path,
                            int fd, const FetchProgress& progress) {
    const auto write = [fd](const void* bytes, std::size_t count, std::int64_t offset) {
        return pwrite(fd, bytes, count, offset);
    };
    FileFetch fetch;
    fetch.result = request_file(client, server, server_path, fetch);
    if (fetch.result == 0) {
        fetch.result = recv_into(client, write, fetch, progress);
    }
    return fetch;
}

std::int32_t GetServerFile(PK_Request_Client& client, const char* szServerIp,
                           const char* szServerFilePath, const char* szLocalPath) {
    if (szServerIp == nullptr || szServerFilePath == nullptr || szLocalPath == nullptr) {
        return FETCH_NULL_TEXT;
    }
    return fetch_server_file(client, szServerIp, szServerFilePath, szLocalPath).result;
}

std::int32_t recv_file(PK_Request_Client& client, std::int64_t length, const char* szPath) {
    FileFetch fetch;
    fetch.length = length;
    return recv_announced(client, szPath, fetch, {});
}
