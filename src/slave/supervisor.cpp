#include "supervisor.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <optional>
#include <string>
#include <thread>

#include "client_list/client_list.h"
#include "events.h"
#include "keys.h"
#include "local_addresses.h"
#include "log.h"
#include "logged_lines.h"
#include "master_addresses.h"
#include "miss_counter.h"
#include "only_daemon.h"
#include "own_role.h"
#include "owned.h"
#include "peer_message.h"
#include "receiver.h"
#include "resolve.h"
#include "role.h"
#include "services.h"
#include "signals.h"
#include "stamps.h"
#include "state_page.h"
#include "store.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds HEARTBEAT_PERIOD{2};
constexpr int ANSWER_MISSING = 1;  // the bottle after the count-down, or less

// How long the beat that has just been sent may take to be answered, where something is decided
// without its answer: a line that is whole again answers within milliseconds.
constexpr std::chrono::milliseconds LAST_CHANCE{250};

constexpr std::chrono::milliseconds LOOK_AGAIN{50};  // whether a push is still alive

// The receiver thread, if it could be started.
std::optional<pthread_t> start_receiver() {
    const TermSignalBlocked blocked;
    pthread_t thread{};
    if (pthread_create(&thread, nullptr, slave_thread, nullptr) != 0) {
        return std::nullopt;
    }
    return thread;
}

// What a beat tells of this host, read in one opening of config.db.
struct OwnSettings {
    std::optional<std::string> server_list;
    std::optional<std::string> dsver;
};

OwnSettings read_own_settings() {
    constexpr std::array KEYS = {KEY_SERVER_LIST, KEY_DSVER};
    std::array<std::optional<std::string>, KEYS.size()> values;
    (void)db_read_settled(CONFIG_DB, KEYS, values);
    return {values[0], values[1]};
}

PeerMessage own_heartbeat() {
    OwnSettings own = read_own_settings();
    if (!own.dsver) {
        ensure_dsver();
        own = read_own_settings();
    }
    // Other tools may have stored the terminating zero byte with a text.
    char serverip[sizeof HeartbeatBody::serverip] = {};
    (void)first_local_ip_of(own.server_list.value_or("").c_str(), serverip, sizeof serverip);
    return make_heartbeat(serverip, own.dsver.value_or("").c_str());
}

// The beat of one period, the same on each path.
class Beat {
public:
    // It goes over the datagram socket `fd`.
    explicit Beat(int fd) : fd_(fd) {}

    // Sends it to the master at `master_address` (dotted text). One that cannot be sent is simply
    // missed.
    void send(const char* master_address);

private:
    int fd_;
    std::optional<PeerMessage> message_;  // made when it is first sent
};

void Beat::send(const char* master_address) {
    // Only a check: the datagram goes to what inet_addr makes of the text.
    if (!resolve_ipv4(master_address)) {
        log_message(msg::NO_MASTER_ADDRESS_TO_BEAT, master_address, strerror(errno));
        return;
    }
    if (!message_) {
        message_ = own_heartbeat();
    }
    sockaddr_in master{};
    master.sin_family = AF_INET;
    master.sin_addr.s_addr = inet_addr(master_address);
    master.sin_port = htons(PEER_PORT);
    if (sendto(fd_, &*message_, sizeof *message_, MSG_NOSIGNAL,
               reinterpret_cast<const sockaddr*>(&master), sizeof master) < 0) {
        log_message(msg::HEARTBEAT_NOT_SENT, "src/slave", LINE_HEARTBEAT_NOT_SENT, strerror(errno));
    } else {
        page::heartbeat_sent();
    }
}

void become_master() {
    status = STATUS_PROMOTED;
    (void)post_event(EVENT_NOTICE, EVENT_TOOK_OVER, errno, nullptr);
    log_message(msg::TOOK_OVER);
    role = ROLE_ACTING_MASTER;
    page::takes_over(role, status);
    client_list().take_over();
    if (slave_exit_requested != 1) {  // else nobody would stop them
        const ServiceResult started = start_boot_services();
        page::services_started(started.success, started.text);
    }
}

void restore_slave() {
    status = STATUS_STANDBY;
    (void)post_event(EVENT_NOTICE, EVENT_STEPPED_DOWN, errno, nullptr);
    log_message(msg::STEPPED_DOWN);
    role = ROLE_SLAVE;
    page::steps_down(role, status);
    (void)stop_boot_services();
}

// The SIGTERM handler: async-signal-safe.
void on_sigterm(int /*signal_number*/) {
    slave_exit_requested = 1;  // first: a thread that finds no semaphore must not make it anew
    page::stops();
    semaphore_delete();
}

bool answer_is_missing() {
    return bottle <= ANSWER_MISSING;
}

// Sends the beat on every other path to the master, too, as long as answers are missing. An answer
// to the beat on the first path comes before that: two answers to one beat would ask for the same
// set twice. Not while a push keeps arriving: an answer beside it would empty the list that it
// fills. Returns how long it waited.
Clock::duration beat_on_other_paths(Beat& beat) {
    if (!answer_is_missing() || client_list().grows()) {
        return {};
    }
    const std::vector<std::string> paths = master_paths();
    if (paths.empty()) {
        return {};
    }
    const auto begin = Clock::now();
    await_refill(ANSWER_MISSING + 1, LAST_CHANCE);
    for (const std::string& path : paths) {
        if (answer_is_missing() && !client_list().grows()) {
            beat.send(path.c_str());
        }
    }
    return Clock::now() - begin;
}

SlaveAction action_now() {
    return next_action({.status = status,
                        .bottle = bottle,
                        .records_arrive = client_list().grows(),
                        .stop_asked = slave_exit_requested == 1});
}

void decide_and_act() {
    SlaveAction action = action_now();
    if (action == SlaveAction::PROMOTE) {
        await_refill(0, LAST_CHANCE);
        action = action_now();
    }
    if (action == SlaveAction::PROMOTE) {
        become_master();
    } else if (action == SlaveAction::STEP_DOWN) {
        restore_slave();
    }
}

// Returns how much of the period went by with waiting.
Clock::duration one_period(int fd) {
    page::period_begins();
    Beat beat(fd);
    beat.send(master_ip);
    count_missed_beat();
    log_message(msg::BEAT_COUNTED, bottle.load(), status.load());
    const Clock::duration waited = beat_on_other_paths(beat);
    decide_and_act();
    return waited;
}

// Waits for so long, or until SIGTERM.
void pause_for(std::chrono::nanoseconds time) {
    const auto whole = std::chrono::floor<std::chrono::seconds>(time);
    const timespec wanted{.tv_sec = whole.count(), .tv_nsec = (time - whole).count()};
    (void)nanosleep(&wanted, nullptr);
}

// The rest of the period. A take-over that was put off comes as soon as the push falls silent,
// unless the master answers on another path.
void rest(int fd, Clock::duration left) {
    if (action_now() != SlaveAction::AWAIT_PUSH) {
        pause_for(left);
        return;
    }
    const auto end = Clock::now() + left;
    while (Clock::now() < end && slave_exit_requested != 1) {
        std::this_thread::sleep_for(LOOK_AGAIN);
        if (action_now() == SlaveAction::PROMOTE) {
            Beat beat(fd);
            (void)beat_on_other_paths(beat);
            decide_and_act();
        }
    }
}

}  // namespace

void leave_slave_role() {
    client_list().start_as_master();
}

void run_slave() {
    init_semaphore();
    slave_exit_requested = 0;
    install_signal_handler(SIGTERM, on_sigterm, 0);
    log_message(msg::SLAVE_STARTS);
    client_list().start_as_slave();
    const std::optional<pthread_t> receiver = start_receiver();
    OwnedFd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd.valid()) {
        log_message(msg::NO_UDP_SOCKET, strerror(errno));
        return;
    }
    while (slave_exit_requested != 1) {
        const Clock::duration waited = one_period(fd.get());
        rest(fd.get(), HEARTBEAT_PERIOD - waited);
    }
    fd.reset();
    report_semaphore_delete();
    wake_receiver();
    if (receiver) {
        (void)pthread_join(*receiver, nullptr);
    }
    release_host();  // the process stays, but has nothing left to do
}
