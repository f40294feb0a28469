#include <cerrno>
#include <cstring>
#include <new>
#include <string>

#include "PK_Request_Client.h"
#include "body_codec.h"
#include "log.h"

namespace {

constexpr const char* ORIGIN = "src/PK_Request_Client";
constexpr const char* FUNCTION = "Hpc_RequestPro_NoClose";
constexpr std::int32_t NO_ANSWER_YET = -11;

struct RequestHeader {
    std::uint32_t dwBusinessId;
    std::uint32_t reserved[2];
    std::uint32_t dwRequestDataSize;
};
static_assert(sizeof(RequestHeader) == 16);

struct ResponseHeader {
    std::uint32_t reserved[2];
    std::int32_t nErrCode;
    std::uint32_t reserved2;
    std::int32_t dwResponedDataSize;
};
static_assert(sizeof(ResponseHeader) == 20);

}  // namespace

int PK_Request_Client::Hpc_RequestPro_NoClose(const char* szIP, std::uint32_t dwBusinessId,
                                              const char* szCommand, char* szRetMsg,
                                              std::int32_t nRetSize, std::int32_t* nErrCode) {
    log_message(msg::SERVICE_REQUEST, szIP, dwBusinessId, szCommand);
    *nErrCode = NO_ANSWER_YET;
    failure_.clear();
    connect_error_ = socket_.Connect(szIP, static_cast<std::uint16_t>(port_), timeout_);
    if (connect_error_ != 0) {
        failure_ = log_failure(msg::SERVICE_NOT_CONNECTED, strerror(connect_error_), ORIGIN,
                               FUNCTION, __LINE__);
        return REQUEST_NO_CONNECTION;
    }
    try {
        const int sent = send_request(dwBusinessId, szCommand);
        return sent != 0 ? sent : recv_reply(szRetMsg, nRetSize, nErrCode);
    } catch (const std::bad_alloc&) {
        return REQUEST_NO_MEMORY;
    }
}

int PK_Request_Client::Hpc_RequestPro(const char* szIP, std::uint32_t dwBusinessId,
                                      const char* szCommand, char* szRetMsg, std::int32_t nRetSize,
                                      std::int32_t* nErrCode) {
    const int result =
        Hpc_RequestPro_NoClose(szIP, dwBusinessId, szCommand, szRetMsg, nRetSize, nErrCode);
    (void)socket_.Close();
    return result;
}

bool PK_Request_Client::send_part(const void* data, std::int32_t size) {
    const int sent = socket_.SendAll(data, size);
    if (sent != size) {
        failure_ = log_failure(msg::REQUEST_NOT_SENT, sent, errno, ORIGIN, FUNCTION, __LINE__);
    }
    return sent == size;
}

int PK_Request_Client::send_request(std::uint32_t dwBusinessId, const char* szCommand) {
    const std::string body = encode_body(szCommand);
    RequestHeader header{};
    header.dwBusinessId = dwBusinessId;
    header.dwRequestDataSize = static_cast<std::uint32_t>(body.size());
    const bool sent = send_part(&header, sizeof header) &&
                      send_part(body.data(), static_cast<std::int32_t>(body.size()));
    return sent ? 0 : REQUEST_BROKEN;
}

int PK_Request_Client::recv_reply(char* szRetMsg, std::int32_t nRetSize, std::int32_t* nErrCode) {
    ResponseHeader header{};
    const auto header_size = static_cast<std::int32_t>(sizeof header);
    int received = socket_.RecvAll(&header, header_size);
    if (received != header_size) {
        failure_ = log_failure(msg::REPLY_HEADER_CUT, received, header_size, errno, ORIGIN,
                               FUNCTION, __LINE__);
        return REQUEST_BROKEN;
    }
    if (header.nErrCode != 0 || header.dwResponedDataSize < 1) {
        *nErrCode = header.nErrCode;
        return 0;
    }
    if (header.dwResponedDataSize >= nRetSize) {
        failure_ = log_failure(msg::REPLY_TOO_LONG, header.dwResponedDataSize, nRetSize, ORIGIN,
                               FUNCTION, __LINE__);
        return REQUEST_BROKEN;
    }
    std::string body(static_cast<std::size_t>(header.dwResponedDataSize), '\0');
    received = socket_.RecvAll(body.data(), header.dwResponedDataSize);
    if (received != header.dwResponedDataSize) {
        // The labels do not match the order of the values; other tools read it as it is.
        failure_ = log_failure(msg::REPLY_BODY_CUT, received, errno, header.dwResponedDataSize,
                               ORIGIN, FUNCTION, __LINE__);
        return REQUEST_BROKEN;
    }
    const std::string reply = decode_body(body);  // shorter than the body, thus than the buffer
    std::memset(szRetMsg, 0, static_cast<std::size_t>(nRetSize));
    std::memcpy(szRetMsg, reply.data(), reply.size());
    *nErrCode = 0;
    log_message(msg::SERVICE_REPLY, szRetMsg);
    return 0;
}
