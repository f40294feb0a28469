#include "receiver.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "end_process.h"
#include "events.h"
#include "log.h"
#include "logged_lines.h"
#include "message_stream.h"
#include "miss_counter.h"
#include "own_role.h"
#include "owned.h"
#include "peer_message.h"
#include "record_sink.h"
#include "resolve.h"
#include "signals.h"
#include "sync_trigger.h"
#include "tcp.h"

namespace {

constexpr int UNREACHABLE_STATUS = 11;
constexpr unsigned UNREACHABLE_SECONDS = 3;
constexpr int CONNECTION_TIMEOUT = 20;  // seconds

// A sender at work is back within this time; then the batch of records stays open.
constexpr int BATCH_GAP_MILLISECONDS = 50;

// Logs why nobody can connect, gives operators' tools a moment, and ends the process.
[[noreturn]] void end_unreachable(MessageFor<const char*, const char*, int> message, int line) {
    log_message(message, strerror(errno), "slave_thread", line);
    sleep(UNREACHABLE_SECONDS);
    end_process(UNREACHABLE_STATUS);
}

int wake_fd() {
    static const OwnedFd fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    return fd.get();
}

// Waits until a connection waits, or wake_receiver was called.
void wait_for_connection(int listener) {
    pollfd waits[] = {{listener, POLLIN, 0}, {wake_fd(), POLLIN, 0}};
    while (poll(waits, 2, -1) < 0 && errno == EINTR) {}
}

// TCP_CORK gathers what is sent, and the slave sends nothing here: it has no effect. It is part of
// how the service has always set up its connections, where tools that list sockets see it.
void set_connection_options(int connection) {
    const int on = 1;
    (void)setsockopt(connection, IPPROTO_TCP, TCP_CORK, &on, sizeof on);
}

bool comes_from_master(int connection) {
    sockaddr_in sender{};
    socklen_t length = sizeof sender;
    const auto master = resolve_ipv4(master_ip);
    return getpeername(connection, reinterpret_cast<sockaddr*>(&sender), &length) == 0 &&
           master == sender.sin_addr.s_addr;
}

// Records of the master are as good as its answers, though they refill only what has run out.
void act_on_record(const DataRecord& record, bool from_master, RecordSink& sink) {
    if (!from_master) {
        (void)sink.apply_data_record(record);
        return;
    }
    const ClientList::Work work(client_list());
    if (sink.apply_data_record(record) && bottle < 0) {
        reset_bottle();
    }
}

void act_on(const PeerMessage& message, int connection, bool from_master, RecordSink& sink) {
    if (message.type == MSG_DATA) {
        act_on_record(message.record, from_master, sink);
        return;
    }
    sink.close_batch();  // what follows may put another file in the batch's place
    if (message.type == MSG_BEAT_BACK) {
        data_sync_trigger(connection, message.record);
        sink.answered();
        reset_bottle();
    } else {
        (void)post_event(EVENT_ERROR, EVENT_UNKNOWN_TYPE, errno, nullptr);
    }
}

void serve_connection(int connection) {
    RecordSink sink;
    MessageStream stream(connection);
    const PeerMessage* message = stream.next();
    if (message == nullptr) {
        log_message(msg::NOTHING_RECEIVED, strerror(errno));
        return;
    }
    const bool from_master = comes_from_master(connection);
    for (; message != nullptr; message = stream.next()) {
        act_on(*message, connection, from_master, sink);
        if (sink.has_batch() && !stream.more_within(BATCH_GAP_MILLISECONDS)) {
            sink.close_batch();
        }
    }
}

}  // namespace

void wake_receiver() {
    (void)eventfd_write(wake_fd(), 1);
}

void* slave_thread(void* /*argument*/) {
    const OwnedFd listener(TcpBuildListen("127.0.0.1", PEER_PORT, CONNECTION_TIMEOUT));
    // Any other port is a failed bind: nobody would ever connect to it.
    const int cause = errno;
    if (!listener.valid() || cause != 0 || TcpLocalPort(listener.get()) != PEER_PORT) {
        errno = cause;
        end_unreachable(msg::CANNOT_LISTEN, LINE_CANNOT_LISTEN);
    }
    while (slave_exit_requested != 1) {
        wait_for_connection(listener.get());
        if (slave_exit_requested == 1) {
            break;
        }
        const int connection = TcpSvAccept(listener.get(), CONNECTION_TIMEOUT);
        if (connection < 0) {
            end_unreachable(msg::CANNOT_ACCEPT, LINE_CANNOT_ACCEPT);
        }
        set_connection_options(connection);
        serve_connection(connection);
        (void)TcpClose(connection);
    }
    log_message(msg::SLAVE_STOPPED, LINE_RECEIVER_ENDS);
    return nullptr;
}
