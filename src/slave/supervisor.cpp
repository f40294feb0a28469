#include "supervisor.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <optional>

#include "client_list.h"
#include "events.h"
#include "keys.h"
#include "local_addresses.h"
#include "log.h"
#include "logged_lines.h"
#include "miss_counter.h"
#include "own_role.h"
#include "owned.h"
#include "peer_message.h"
#include "receiver.h"
#include "resolve.h"
#include "role.h"
#include "services.h"
#include "signals.h"
#include "stamps.h"
#include "store.h"

namespace {

constexpr unsigned HEARTBEAT_PERIOD = 2;  // seconds

// How long the beat that has just been sent may take to be answered, where that decides about a
// take-over: a line that is whole again answers within milliseconds.
constexpr std::chrono::milliseconds LAST_CHANCE{250};

// The receiver thread, if it could be started.
std::optional<pthread_t> start_receiver() {
    const TermSignalBlocked blocked;
    pthread_t thread{};
    if (pthread_create(&thread, nullptr, slave_thread, nullptr) != 0) {
        return std::nullopt;
    }
    return thread;
}

OwnedText own_dsver() {
    OwnedText dsver(db_get(CONFIG_DB, KEY_DSVER));
    if (!dsver) {
        ensure_dsver();
        dsver.reset(db_get(CONFIG_DB, KEY_DSVER));
    }
    return dsver;
}

// What this period leads to. No take-over once SIGTERM has come: nobody would end it.
SlaveAction decide() {
    const SlaveAction action = next_action(status, bottle);
    if (action != SlaveAction::PROMOTE) {
        return action;
    }
    await_refill(LAST_CHANCE);
    return slave_exit_requested == 1 ? SlaveAction::NONE : next_action(status, bottle);
}

// Sends one heartbeat over the datagram socket `fd` to the master at `master_address` (dotted
// text). One that cannot be sent is simply missed.
void send_heartbeat(int fd, const char* master_address) {
    // Only a check: the datagram goes to what inet_addr makes of the text.
    if (!resolve_ipv4(master_address)) {
        log_message(msg::NO_MASTER_ADDRESS_TO_BEAT, master_address, strerror(errno));
        return;
    }
    char serverip[sizeof HeartbeatBody::serverip] = {};
    (void)first_local_server_ip(serverip, sizeof serverip);
    const PeerMessage message = make_heartbeat(serverip, text_of(own_dsver()));

    sockaddr_in master{};
    master.sin_family = AF_INET;
    master.sin_addr.s_addr = inet_addr(master_address);
    master.sin_port = htons(PEER_PORT);
    if (sendto(fd, &message, sizeof message, MSG_NOSIGNAL,
               reinterpret_cast<const sockaddr*>(&master), sizeof master) < 0) {
        log_message(msg::HEARTBEAT_NOT_SENT, "src/slave", LINE_HEARTBEAT_NOT_SENT, strerror(errno));
    }
}

void become_master() {
    status = STATUS_PROMOTED;
    (void)post_event(EVENT_NOTICE, EVENT_TOOK_OVER, errno, nullptr);
    log_message(msg::TOOK_OVER);
    role = ROLE_ACTING_MASTER;
    await_end_of_push();
    put_back_client_list();
    (void)start_boot_services();
}

void restore_slave() {
    status = STATUS_STANDBY;
    (void)post_event(EVENT_NOTICE, EVENT_STEPPED_DOWN, errno, nullptr);
    log_message(msg::STEPPED_DOWN);
    role = ROLE_SLAVE;
    (void)stop_boot_services();
}

// The SIGTERM handler: async-signal-safe.
void on_sigterm(int /*signal_number*/) {
    slave_exit_requested = 1;  // first: a thread that finds no semaphore must not make it anew
    semaphore_delete();
}

void one_period(int fd) {
    send_heartbeat(fd, master_ip);
    count_missed_beat();
    log_message(msg::BEAT_COUNTED, bottle.load(), status.load());
    switch (decide()) {
        case SlaveAction::PROMOTE:
            become_master();
            break;
        case SlaveAction::STEP_DOWN:
            restore_slave();
            break;
        case SlaveAction::NONE:
            break;
    }
}

}  // namespace

void run_slave() {
    init_semaphore();
    slave_exit_requested = 0;
    install_signal_handler(SIGTERM, on_sigterm, 0);
    log_message(msg::SLAVE_STARTS);
    const std::optional<pthread_t> receiver = start_receiver();
    OwnedFd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd.valid()) {
        log_message(msg::NO_UDP_SOCKET, strerror(errno));
        return;
    }
    while (slave_exit_requested != 1) {
        one_period(fd.get());
        sleep(HEARTBEAT_PERIOD);  // cut short by SIGTERM
    }
    fd.reset();
    report_semaphore_delete();
    wake_receiver();
    if (receiver) {
        (void)pthread_join(*receiver, nullptr);
    }
}
