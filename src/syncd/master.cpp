#include "master.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <new>

#include "end_process.h"
#include "keys.h"
#include "log.h"
#include "owed_reload.h"
#include "owned.h"
#include "peer_message.h"
#include "push.h"
#include "resolve.h"
#include "signals.h"
#include "stamps.h"
#include "store.h"
#include "sync_jobs.h"
#include "tcp.h"

namespace {

constexpr int ANSWER_TIMEOUT = 20;  // seconds

// Binds the master's port. SO_REUSEADDR is cleared afterwards: two sockets that both have it share
// a UDP port, and a second master would go unnoticed.
int bind_peer_port(int fd) {
    int reuse = 1;
    (void)setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = htonl(INADDR_ANY);
    local.sin_port = htons(PEER_PORT);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) {
        return -1;
    }
    reuse = 0;
    (void)setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
    return 0;
}

OwnedFd open_peer_socket() {
    OwnedFd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd.valid()) {
        log_message(msg::NO_UDP_SOCKET, strerror(errno));
        end_process(1);
    }
    if (bind_peer_port(fd.get()) != 0) {
        log_message(msg::NO_UDP_PORT, strerror(errno));
        end_process(1);
    }
    return fd;
}

// Answers one datagram over a connection of its own; whoever sent it is answered.
void answer(const PeerMessage& message, const sockaddr_in& sender) {
    if (message.type == MSG_HEARTBEAT) {
        check_server_dsver(message.heartbeat);
    }
    const int connection = TcpConnectSv(sender.sin_addr.s_addr, PEER_PORT, ANSWER_TIMEOUT);
    if (connection <= 0) {
        const char* cause = strerror(errno);
        const OwnedText ip(ip_to_string(sender.sin_addr.s_addr));
        log_message(msg::NO_SOCKET_TO_SLAVE, cause, ip.get(), "start_master", __LINE__);
    }
    if (message.type == MSG_DATA_REQUEST) {
        push_master_data(connection, sender, message.record);
    } else if (message.type == MSG_HEARTBEAT) {
        send_beat_back(connection, sender);
    } else {
        log_message(msg::UNKNOWN_DATAGRAM);
    }
    (void)TcpClose(connection);
}

// Serves until a receive fails or the process is asked to stop.
void serve(int fd) {
    sockaddr_in sender{};
    socklen_t length = sizeof sender;
    while (slave_exit_requested != 1) {
        PeerMessage message;
        std::memset(&message, 0, sizeof message);
        if (recvfrom(fd, &message, sizeof message, 0, reinterpret_cast<sockaddr*>(&sender),
                     &length) < 0) {
            log_message(msg::NOTHING_RECEIVED, strerror(errno));
            return;
        }
        answer(message, sender);
    }
}

}  // namespace

void send_beat_back(int connection, const sockaddr_in& sender) {
    const StampPair stamps = current_stamps().value_or(StampPair{"null", "null"});
    const PeerMessage message = make_beat_back(join_stamps(stamps));
    const OwnedText ip(ip_to_string(sender.sin_addr.s_addr));
    if (ip) {
        log_message(msg::BEAT_BACK, ip.get(), message.record.value);
    }
    if (TcpSendAll(connection, &message, sizeof message) != 0) {
        log_message(msg::BEAT_BACK_NOT_SENT, strerror(errno));
    }
}

void start_master() {
    log_message(msg::MASTER_STARTS);
    OwnedFd fd = open_peer_socket();
    slave_exit_requested = 0;
    if (!start_work_server()) {
        (void)fd.release();  // stays bound: no second master may start beside a broken one
        return;
    }
    (void)current_stamps();  // to have some to answer, whatever becomes of config.db
    pay_reload_of_last_run();
    serve(fd.get());
}
