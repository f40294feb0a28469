#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <optional>

#include <json-c/json.h>

#include "PK_File.h"
#include "PK_Request_Client.h"
#include "log.h"

namespace {

constexpr const char* ORIGIN = "src/PK_Request_Client";
constexpr std::int32_t REPLY_SIZE = 1024;
constexpr std::int64_t CHUNK_SIZE = 4096;

struct PutJson {
    void operator()(json_object* object) const { json_object_put(object); }
};
using OwnedJson = std::unique_ptr<json_object, PutJson>;

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

std::int32_t recv_announced_file(PK_Request_Client& client, const char* reply, const char* path) {
    const OwnedJson parsed(json_tokener_parse(reply));
    if (!parsed) {
        write_log(LOG_ERROR, "FILE_MGR json_tokener_parse:%s   --%s--%d", reply, ORIGIN, __LINE__);
        return -3;
    }
    const auto length = length_in(parsed.get());
    if (!length) {
        write_log(LOG_ERROR, "FILE_MGR length not found:%s   --%s--%d", reply, ORIGIN, __LINE__);
        return -3;
    }
    return recv_file(client, *length, path);
}

}  // namespace

std::int32_t GetServerFile(PK_Request_Client& client, const char* szServerIp,
                           const char* szServerFilePath, const char* szLocalPath) {
    if (szServerIp == nullptr || szServerFilePath == nullptr || szLocalPath == nullptr) {
        return -77;
    }
    const OwnedJson request = make_request(szServerFilePath);
    client.SetPort(FILE_SERVICE_PORT);
    std::array<char, REPLY_SIZE> reply{};  // zeroed: an answer may come without a body
    std::int32_t nErrCode = 0;
    if (client.Hpc_RequestPro_NoClose(szServerIp, BUSINESS_GET_FILE,
                                      json_object_to_json_string(request.get()), reply.data(),
                                      REPLY_SIZE, &nErrCode) != 0) {
        return -1;
    }
    if (nErrCode != 0) {
        write_log(LOG_ERROR, "FILE_MGR nErrCode:%d szServerIp:%s szServerFilePath %s --%s--%d",
                  nErrCode, szServerIp, szServerFilePath, ORIGIN, __LINE__);
        return -2;
    }
    return recv_announced_file(client, reply.data(), szLocalPath);
}

std::int32_t recv_file(PK_Request_Client& client, std::int64_t length, const char* szPath) {
    PK_File file;
    if (file.OpenRwEmpty(szPath) != 0) {
        write_log(LOG_ERROR, "File.OpenRwAlwaysSetSize szPath:%s --%s--%d", szPath, ORIGIN,
                  __LINE__);
        return -1;
    }
    std::array<char, CHUNK_SIZE> buffer;
    for (std::int64_t offset = 0; offset < length;) {
        const auto chunk = static_cast<std::int32_t>(std::min(length - offset, CHUNK_SIZE));
        const int received = client.RecvAll(buffer.data(), chunk);
        if (received != chunk) {
            write_log(LOG_ERROR, "recv_file recv error %d != %d  %d  %s--%s-- %d", received, chunk,
                      errno, ORIGIN, "recv_file", __LINE__);
            return -4;
        }
        const ssize_t written = file.Write(buffer.data(), static_cast<std::size_t>(chunk), offset);
        if (written != chunk) {
            write_log(LOG_ERROR, " recv_file WriteFile error %d != %d %d  %s--%s-- %d",
                      static_cast<int>(written), chunk, errno, ORIGIN, "recv_file", __LINE__);
            return -3;
        }
        offset += chunk;
    }
    return 0;
}
