// The answer of a file service: raw bytes, or a whole answer around any body and any file.
#include <sys/socket.h>

#include <array>
#include <cstring>
#include <mutex>
#include <thread>

#include "PK_Request_Client.h"
#include "PK_Request_Client/body_codec.h"
#include "fuzz.h"
#include "keys.h"
#include "owned.h"
#include "tcp.h"

namespace {

constexpr int TIMEOUT = 20;
constexpr const char* TARGET = "/tmp/fetched";

std::mutex guard;
std::string answer;

std::string present_answer() {
    const std::lock_guard lock(guard);
    return answer;
}

// Gives everyone who asks the present answer.
void serve(int listener) {
    for (;;) {
        const OwnedFd fd(TcpSvAccept(listener, TIMEOUT));
        const std::string now = present_answer();
        (void)TcpSendSome(fd.get(), now.data(), now.size());
        (void)shutdown(fd.get(), SHUT_WR);
        std::array<char, 4096> request;
        while (recv(fd.get(), request.data(), request.size(), 0) > 0) {}
    }
}

// The first byte chooses: 0 takes the rest as it is; else the part up to the first zero byte is the
// decoded body, and what follows it the file.
std::string answer_of(std::string_view input) {
    if (input.empty() || input.front() == 0) {
        return std::string(input.substr(input.empty() ? 0 : 1));
    }
    input.remove_prefix(1);
    const std::string body = encode_body(input.substr(0, input.find('\0')));
    const std::array<int, 5> header = {0, 0, 0, 0, static_cast<int>(body.size())};
    std::string whole(reinterpret_cast<const char*>(header.data()), sizeof header);
    return whole + body + std::string(input.substr(std::min(input.size(), input.find('\0'))));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    begin_fuzzing(argc, argv);
    const int listener = TcpBuildListen("", FILE_SERVICE_PORT, TIMEOUT);
    expect(TcpLocalPort(listener) == FILE_SERVICE_PORT, "the port is free");
    std::thread(serve, listener).detach();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(text_of(data, size));
    expect(decode_body(encode_body(text)) == text, "an encoded text comes back");
    expect(decode_body(text).size() <= size / 4 * 3, "a decoded text is shorter");

    const std::string fresh = answer_of(text);
    {
        const std::lock_guard lock(guard);
        answer = fresh;
    }
    PK_Request_Client client;
    const int result = GetServerFile(client, "127.0.0.1", CONFIG_DB, TARGET);
    expect(result <= 0 && result >= -4, "a known result");
    expect(result != 0 || contents(TARGET).size() <= fresh.size(), "no more than was sent");
    (void)client.Close();
    return 0;
}
