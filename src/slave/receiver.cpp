#include "receiver.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include "connections.h"
#include "end_process.h"
#include "events.h"
#include "log.h"
#include "log_burst.h"
#include "logged_lines.h"
#include "master_addresses.h"
#include "message_stream.h"
#include "miss_counter.h"
#include "owned.h"
#include "peer_message.h"
#include "rare_line.h"
#include "record_sink.h"
#include "resolve.h"
#include "signals.h"
#include "state_page.h"
#include "sync_trigger.h"
#include "tcp.h"

namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;

constexpr unsigned UNREACHABLE_SECONDS = 3;
constexpr int CONNECTION_TIMEOUT = 20;  // seconds
constexpr int MOST_ACCEPTED = 64;       // in a row
constexpr auto LONGEST_SILENCE = std::chrono::seconds(CONNECTION_TIMEOUT);

// A sender at work is back within this time; then the batch of records stays open.
constexpr auto BATCH_GAP = 50ms;

// Logs why nobody can connect, gives operators' tools a moment, and ends the process.
[[noreturn]] void end_unreachable(MessageFor<const char*, const char*, int> message, int line) {
    log_message(message, strerror(errno), "slave_thread", line);
    sleep(UNREACHABLE_SECONDS);
    end_process(EXIT_UNREACHABLE);
}

int wake_fd() {
    static const OwnedFd fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    return fd.get();
}

// TCP_CORK gathers what is sent, and the slave sends nothing here: it has no effect. It is part of
// how the service has always set up its connections, where tools that list sockets see it.
void set_connection_options(int connection) {
    const int on = 1;
    (void)setsockopt(connection, IPPROTO_TCP, TCP_CORK, &on, sizeof on);
}

// Exists while something of the master's is worked on: whatever that takes, the master has not
// fallen silent.
using MastersWork = std::optional<ClientList::Work>;

void begin_work(MastersWork& work, bool from_master) {
    if (from_master) {
        work.emplace(client_list());
    }
}

// Records of the master are as good as its answers, though they refill only what has run out.
void act_on_record(const DataRecord& record, bool from_master, RecordSink& sink) {
    if (sink.apply_data_record(record) && from_master && bottle < 0) {
        reset_bottle();
    }
}

void act_on(const PeerMessage& message, int connection, bool from_master, RecordSink& sink) {
    MastersWork work;
    begin_work(work, from_master);
    if (message.type == MSG_DATA) {
        act_on_record(message.record, from_master, sink);
        return;
    }
    sink.close_batch();  // what follows may put another file in the batch's place
    if (message.type == MSG_BEAT_BACK) {
        page::answer_received();
        data_sync_trigger(connection, message.record);
        sink.answered();
        reset_bottle();
    } else {
        (void)post_event(EVENT_ERROR, EVENT_UNKNOWN_TYPE, errno, nullptr);
    }
}

// Serves all connections until the process is to stop, and then the one that is being served.
class Receiver {
public:
    explicit Receiver(int listener) : listener_(listener) {}

    void run() {
        while (slave_exit_requested != 1) {
            one_step(true);
        }
        connections_.close_all_but(served_, steady_clock::now());
        while (!connections_.empty()) {
            one_step(false);
        }
    }

private:
    bool has_batch() const { return served_ != nullptr && served_->sink->has_batch(); }
    void close_batch();

    // Waits for the next thing to happen, at most until the next one is due, and does it.
    void one_step(bool accepts);

    // Those of `readable` that have something to read, or have ended. Closes those that have been
    // silent for too long, and takes new connections.
    std::vector<Connection*> wait_for(const std::vector<Connection*>& readable, bool accepts);
    int milliseconds_until_due(const std::vector<Connection*>& readable) const;
    void accept_waiting();
    bool accept_one();
    void serve(Connection& connection);
    void close(const Connection& connection);

    int listener_;
    Connections connections_;
    Connection* served_ = nullptr;  // the one whose message was acted on last, while it is open
    Moment acted_{};                // when that was
    RareLine given_up_;
};

void Receiver::one_step(bool accepts) {
    std::vector<Connection*> ready = wait_for(connections_.readable_beside(served_), accepts);
    if (Connection* next = choose(ready, served_); next != nullptr) {
        if (has_batch() && next != served_) {
            close_batch();
        }
        serve(*next);
    }
    if (has_batch() && steady_clock::now() - acted_ >= BATCH_GAP) {
        close_batch();
    }
}

void Receiver::close_batch() {
    MastersWork work;
    begin_work(work, served_->of_master);
    served_->sink->close_batch();
}

int Receiver::milliseconds_until_due(const std::vector<Connection*>& readable) const {
    Moment due = Moment::max();
    for (const Connection* each : readable) {
        due = std::min(due, each->silent_since + LONGEST_SILENCE);
    }
    if (has_batch()) {
        due = std::min(due, acted_ + BATCH_GAP);
    }
    if (due == Moment::max()) {
        return -1;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(due - steady_clock::now());
    return static_cast<int>(std::max<std::int64_t>(left.count(), 0));
}

std::vector<Connection*> Receiver::wait_for(const std::vector<Connection*>& readable,
                                            bool accepts) {
    const bool listens = accepts && connections_.can_take();
    std::vector<pollfd> waits = {{listens ? listener_ : -1, POLLIN, 0},
                                 {accepts ? wake_fd() : -1, POLLIN, 0}};
    for (const Connection* each : readable) {
        waits.push_back({each->fd.get(), POLLIN, 0});
    }
    if (poll(waits.data(), waits.size(), milliseconds_until_due(readable)) < 0) {
        if (errno != EINTR) {
            std::this_thread::sleep_for(BATCH_GAP);  // the system is out of memory
        }
        return {};
    }
    std::vector<Connection*> ready;
    for (std::size_t n = 0; n < readable.size(); ++n) {
        if (waits[n + 2].revents != 0) {
            ready.push_back(readable[n]);
        } else if (steady_clock::now() - readable[n]->silent_since >= LONGEST_SILENCE) {
            errno = EAGAIN;
            close(*readable[n]);
        }
    }
    if (waits.front().revents != 0 && slave_exit_requested != 1) {
        accept_waiting();
        // They may have taken the place of some of these.
        const auto open = connections_.readable_beside(served_);
        std::erase_if(ready, [&open](const Connection* each) {
            return std::find(open.begin(), open.end(), each) == open.end();
        });
    }
    return ready;
}

// Those that wait come before the next message is acted on: the master's is to be among the open
// ones then, however many of strangers came before it.
void Receiver::accept_waiting() {
    for (int n = 0; n < MOST_ACCEPTED && connections_.can_take() && accept_one(); ++n) {}
}

// False when none waits.
bool Receiver::accept_one() {
    const int fd = TcpSvAccept(listener_, CONNECTION_TIMEOUT);
    if (fd < 0 && errno == EAGAIN) {
        return false;
    }
    if (fd < 0) {
        end_unreachable(msg::CANNOT_ACCEPT, LINE_CANNOT_ACCEPT);
    }
    set_connection_options(fd);
    const auto now = steady_clock::now();
    const std::uint32_t peer = peer_of(fd);
    auto fresh = std::make_unique<Connection>(fd, peer, is_masters(peer), now);
    if (const auto given_up = connections_.take(std::move(fresh), now)) {
        served_ = given_up.get() == served_ ? nullptr : served_;
        if (const std::size_t all = given_up_.count(); all > 0) {
            const OwnedText address(ip_to_string(given_up->address));
            log_message(msg::CONNECTION_GIVEN_UP, all, address.get());
        }
    }
    return true;
}

void Receiver::serve(Connection& connection) {
    const auto received = connection.stream.receive();
    if (received == MessageStream::Received::END) {
        close(connection);
        return;
    }
    const LogBurst burst;
    while (const PeerMessage* message = connection.stream.next()) {
        if (!connection.sink) {
            connection.sink = std::make_unique<RecordSink>(connection.of_master);
        }
        served_ = &connection;
        act_on(*message, connection.fd.get(), connection.of_master, *connection.sink);
        acted_ = steady_clock::now();
    }
    if (received == MessageStream::Received::SOME) {
        connection.silent_since = steady_clock::now();
    }
}

void Receiver::close(const Connection& connection) {
    if (!connection.sink) {
        log_message(msg::NOTHING_RECEIVED, strerror(errno));
    }
    served_ = &connection == served_ ? nullptr : served_;
    MastersWork work;
    begin_work(work, connection.of_master && connection.sink);
    connections_.close(connection, steady_clock::now());
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
    // A connection may have gone between its announcement and its acceptance.
    (void)fcntl(listener.get(), F_SETFL, O_NONBLOCK);
    Receiver(listener.get()).run();
    log_message(msg::SLAVE_STOPPED, LINE_RECEIVER_ENDS);
    return nullptr;
}
