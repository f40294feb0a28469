#include "master.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

#include "address_list.h"
#include "end_process.h"
#include "inbox.h"
#include "keys.h"
#include "log.h"
#include "only_daemon.h"
#include "owed_reload.h"
#include "owned.h"
#include "peer_message.h"
#include "push.h"
#include "reached_senders.h"
#include "resolve.h"
#include "signals.h"
#include "stamps.h"
#include "state_page.h"
#include "store.h"
#include "sync_jobs.h"
#include "tcp.h"

namespace {

constexpr int ANSWER_TIMEOUT = 20;  // seconds

// How many datagrams may wait: of servers about as many as the kernel keeps for a socket.
constexpr std::size_t MOST_OF_SERVERS = 128;
constexpr std::size_t MOST_OF_STRANGERS = 64;

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

// Datagrams by their senders. One thread answers each kind, so that an answer which takes its time
// delays none of another kind.
struct Inboxes {
    DroppedDatagrams of_servers{"servers"};
    DroppedDatagrams of_strangers{"strangers"};
    Inbox servers{of_servers, MOST_OF_SERVERS};  // in server_list
    Inbox reached{of_strangers, MOST_OF_STRANGERS};
    Inbox strangers{of_strangers, MOST_OF_STRANGERS};
    ReachedSenders reached_senders;
};

// Answers one datagram of `inbox` over a connection of its own; whoever sent it is answered.
void answer(const Datagram& datagram, Inbox& inbox, ReachedSenders& reached) {
    const auto& [message, sender] = datagram;
    if (message.type == MSG_HEARTBEAT) {
        check_server_dsver(message.heartbeat);
    }
    const int connection = TcpConnectSv(sender.sin_addr.s_addr, PEER_PORT, ANSWER_TIMEOUT);
    if (connection <= 0) {
        const char* cause = strerror(errno);
        const OwnedText ip(ip_to_string(sender.sin_addr.s_addr));
        log_message(msg::NO_SOCKET_TO_SLAVE, cause, ip.get(), "start_master", __LINE__);
    }
    reached.note(sender.sin_addr.s_addr, connection > 0 && !TcpPeerHasEnded(connection));
    if (message.type == MSG_DATA_REQUEST) {
        if (push_master_data(connection, sender, message.record)) {
            inbox.end_push(connection, datagram);
        }
    } else if (message.type == MSG_HEARTBEAT) {
        send_beat_back(connection, sender);
    } else {
        log_message(msg::UNKNOWN_DATAGRAM);
    }
    (void)TcpClose(connection);
}

std::optional<Datagram> receive(int fd) {
    Datagram datagram;
    std::memset(&datagram, 0, sizeof datagram);  // a short one counts as filled up with zeros
    socklen_t length = sizeof datagram.sender;
    if (recvfrom(fd, &datagram.message, sizeof datagram.message, 0,
                 reinterpret_cast<sockaddr*>(&datagram.sender), &length) < 0) {
        return std::nullopt;
    }
    return datagram;
}

// Runs `work` on a thread that nobody waits for. False when there is none.
template <typename Work>
bool start_thread(Work work) {
    try {
        std::thread(std::move(work)).detach();
        return true;
    } catch (const std::system_error& failure) {
        log_message(msg::NO_THREAD_FOR_ANSWERS, strerror(failure.code().value()));
    } catch (const std::bad_alloc&) {
        log_message(msg::NO_THREAD_FOR_ANSWERS, strerror(ENOMEM));
    }
    return false;
}

// Answers what comes into `inbox`, until nothing more comes or the process is asked to stop.
void answer_all(Inbox& inbox, ReachedSenders& reached) {
    while (slave_exit_requested != 1) {
        const std::optional<Datagram> datagram = inbox.next();
        if (!datagram) {
            return;
        }
        answer(*datagram, inbox, reached);
    }
}

// What the state page tells of a datagram.
void note_datagram(const Datagram& datagram, bool of_server) {
    if (!of_server) {
        ++page::own().counters.strangers_datagrams;
    } else if (datagram.message.type == MSG_HEARTBEAT) {
        page::heartbeat_received(datagram.sender.sin_addr.s_addr);
    } else if (datagram.message.type == MSG_DATA_REQUEST) {
        page::request_received(datagram.message.record.kind);
    }
}

// Whether one of the configured servers has sent it. While nobody knows these, each counts as one.
bool is_from_server(AddressList& servers, const Datagram& datagram) {
    const OwnedText sender(ip_to_string(datagram.sender.sin_addr.s_addr));
    return sender && servers.has(sender.get(), true);
}

// Receives everything.
void receive_all(OwnedFd fd, Inboxes& inboxes) {
    AddressList servers(KEY_SERVER_LIST);
    while (slave_exit_requested != 1) {
        const std::optional<Datagram> datagram = receive(fd.get());
        if (!datagram) {
            inboxes.servers.close(errno);
            return;
        }
        const bool of_server = is_from_server(servers, *datagram);
        note_datagram(*datagram, of_server);
        const bool reached = inboxes.reached_senders.has(datagram->sender.sin_addr.s_addr);
        Inbox& inbox = of_server ? inboxes.servers : reached ? inboxes.reached : inboxes.strangers;
        inbox.put(*datagram);
    }
}

// Serves until a receive fails or the process is asked to stop.
void serve(OwnedFd fd) {
    const auto inboxes = std::make_shared<Inboxes>();
    const auto answer_apart = [inboxes](Inbox Inboxes::*inbox) {
        return start_thread(
            [inboxes, inbox] { answer_all((*inboxes).*inbox, inboxes->reached_senders); });
    };
    const int number = fd.release();
    const bool apart = answer_apart(&Inboxes::reached) && answer_apart(&Inboxes::strangers) &&
                       start_thread([number, inboxes] { receive_all(OwnedFd(number), *inboxes); });
    if (!apart) {
        end_process(EXIT_NO_SETUP);  // whoever watches over the process starts it again
    }
    answer_all(inboxes->servers, inboxes->reached_senders);
    if (slave_exit_requested != 1) {
        log_message(msg::NOTHING_RECEIVED, strerror(errno));
    }
    release_host();  // the process stays, but its port is free again
}

}  // namespace

void send_beat_back(int connection, const sockaddr_in& sender) {
    const StampPair stamps = current_stamps().value_or(StampPair{NO_STAMP, NO_STAMP});
    const PeerMessage message = make_beat_back(join_stamps(stamps));
    const OwnedText ip(ip_to_string(sender.sin_addr.s_addr));
    if (ip) {
        log_message(msg::BEAT_BACK, ip.get(), message.record.value);
    }
    TcpPatience patience;
    if (TcpSendAllWithin(connection, &message, sizeof message, patience) != 0) {
        log_message(msg::BEAT_BACK_NOT_SENT, strerror(errno));
    } else {
        page::answer_sent(sender.sin_addr.s_addr, stamps.config, stamps.client);
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
    reload_for_last_run();
    serve(std::move(fd));
}
