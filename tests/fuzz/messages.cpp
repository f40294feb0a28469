// A whole pair in one process: the master's loop and the slave's receiver hear anything, and each
// other; after that the next honest heartbeat is answered.
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <chrono>
#include <cstring>
#include <thread>

#include "fuzz.h"
#include "keys.h"
#include "own_role.h"
#include "owned.h"
#include "peer_message.h"
#include "signals.h"
#include "slave/miss_counter.h"
#include "slave/receiver.h"
#include "store.h"
#include "syncd/master.h"
#include "tcp.h"

namespace {

using namespace std::chrono_literals;

constexpr std::uint32_t LOOPBACK = 0x7F000001;
constexpr int TIMEOUT = 20;

sockaddr_in peer() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(LOOPBACK);
    address.sin_port = htons(PEER_PORT);
    return address;
}

void send_datagram(const void* data, std::size_t size) {
    static const OwnedFd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const sockaddr_in to = peer();
    (void)sendto(fd.get(), data, size, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
}

// Returns when the receiver has read everything and closed.
void send_stream(std::string_view bytes) {
    const OwnedFd fd(TcpConnectSv(htonl(LOOPBACK), PEER_PORT, TIMEOUT));
    (void)TcpSendSome(fd.get(), bytes.data(), bytes.size());
    (void)shutdown(fd.get(), SHUT_WR);
    char end = 0;
    while (recv(fd.get(), &end, 1, 0) > 0) {}
}

bool answers_a_heartbeat() {
    const PeerMessage honest = make_heartbeat("", "");
    bottle = 0;
    send_datagram(&honest, sizeof honest);
    const auto limit = std::chrono::steady_clock::now() + 30s;
    while (bottle != SLAVE_BEAT_RESET && std::chrono::steady_clock::now() < limit) {
        std::this_thread::sleep_for(50us);
    }
    return bottle == SLAVE_BEAT_RESET;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    begin_fuzzing(argc, argv);
    std::strcpy(master_ip, "127.0.0.1");
    (void)db_put(CONFIG_DB, KEY_CONFIG_VERSION, "1");
    (void)db_put(CONFIG_DB, KEY_CLIENT_VERSION, "1");
    init_semaphore();
    // Each of them sets or reads the request to stop when it begins.
    std::thread(start_master).detach();
    std::thread([] { (void)slave_thread(nullptr); }).detach();
    for (int tries = 0; tries < 100 && bottle != SLAVE_BEAT_RESET; ++tries) {
        const PeerMessage honest = make_heartbeat("", "");
        bottle = 0;
        send_datagram(&honest, sizeof honest);
        std::this_thread::sleep_for(50ms);
    }
    expect(bottle == SLAVE_BEAT_RESET, "the pair runs");
    return 0;
}

// The first byte chooses between a datagram and a connection.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view bytes = text_of(data, size);
    if (size > 0 && bytes.front() == 0) {
        send_datagram(data + 1, size - 1);
    } else if (size > 0) {
        send_stream(bytes.substr(1));
    }
    expect(answers_a_heartbeat(), "the next honest heartbeat is answered");
    return 0;
}
