#include "push.h"

#include <cerrno>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "data_sets.h"
#include "events.h"
#include "keys.h"
#include "log.h"
#include "log_burst.h"
#include "owned.h"
#include "stamps.h"
#include "state_page.h"
#include "store.h"
#include "tcp.h"

namespace {

// Records on their way out. Several go to the system in one call: one each would cost as much as
// reading and logging them, and wake the slave for each.
class Outbox : public PushTarget {
public:
    explicit Outbox(int connection) : connection_(connection) { messages_.reserve(MESSAGES); }

    void add(const PeerMessage& message) override {
        if (messages_.size() == MESSAGES) {
            (void)send();
        }
        messages_.push_back(message);
    }

    // Logs a line for each record that was not sent.
    bool send() override {
        end_log_burst();  // a line is written before its record leaves the machine
        const std::size_t before = patience_.sent;
        const bool all = TcpSendAllWithin(connection_, messages_.data(),
                                          messages_.size() * sizeof(PeerMessage), patience_) == 0;
        const std::size_t sent = patience_.sent - before;
        const int cause = errno;
        page::records_sent(sent / sizeof(PeerMessage), sent,
                           messages_.size() - sent / sizeof(PeerMessage));
        for (std::size_t n = sent / sizeof(PeerMessage); n < messages_.size(); ++n) {
            log_message(msg::RECORD_NOT_SENT, strerror(cause));
        }
        messages_.clear();
        whole_ = whole_ && all;
        errno = cause;
        return all;
    }

    bool whole() const override { return whole_ && messages_.empty(); }

private:
    static constexpr std::size_t MESSAGES = 56;  // just below 64 KiB

    int connection_;
    TcpPatience patience_;
    bool whole_ = true;
    std::vector<PeerMessage> messages_;
};

// The stores of this host.
class HostSource : public PushSource {
public:
    std::optional<StampPair> stamps() override { return current_stamps(); }
    void begin_walk(const char* path) override { walk_.emplace(path); }
    bool next_chunk(std::vector<StoredRecord>& chunk) override { return walk_->next_chunk(chunk); }
    bool failed() const override { return walk_->failed(); }

private:
    std::optional<RecordWalk> walk_;
};

void push_record(PushTarget& target, const DataSet& set, const StoredRecord& record) {
    // Other tools may have stored the terminating zero byte with the text.
    const std::string_view key = record.key.c_str();
    const std::string_view value = record.value.c_str();
    log_record(msg::RECORD_SENT, key.data(), value.data());
    if (!travels(set, key)) {
        return;
    }
    if (!fits_data_record(key, value)) {
        // A cut record would be a wrong one on the slave.
        log_message(msg::RECORD_TOO_LONG, key.data(), key.size(), value.size());
        return;
    }
    target.add(make_data_record(set.kind, key, value));
}

void push_stamp(PushTarget& target, const DataSet& set, const std::string& stamp) {
    log_record(msg::RECORD_SENT, DBVER_KEY, stamp.c_str());
    target.add(make_data_record(set.kind, DBVER_KEY, stamp));
    if (!target.send() && set.kind == DATA_KIND_CLIENT) {
        (void)post_event(EVENT_ERROR, EVENT_SEND_FAILED, errno, nullptr);
    }
}

}  // namespace

// The stamp is read before the walk: a record changed meanwhile comes with the next stamp.
bool push_records(PushSource& source, PushTarget& target, const DataSet& set) {
    page::Transfer transfer;
    transfer.begins(set.kind);
    const std::optional<StampPair> stamps = source.stamps();
    if (!stamps) {
        log_message(msg::PUSH_WITHOUT_STAMP, set.stamp_key, set.path);
        return false;
    }
    source.begin_walk(set.path);
    const LogBurst burst;
    for (std::vector<StoredRecord> chunk; source.next_chunk(chunk);) {
        for (const StoredRecord& record : chunk) {
            push_record(target, set, record);
        }
    }
    if (source.failed()) {
        // Without its stamp the slave asks again at the next heartbeat. What was read goes out, as
        // its lines say.
        (void)target.send();
        log_message(msg::PUSH_BROKEN_OFF, set.path);
        return false;
    }
    push_stamp(target, set, stamps->of(set));
    return transfer.ends(target.whole(), stamps->of(set));
}

bool push_data_set(int connection, std::uint32_t kind) {
    log_message(msg::PUSH_BEGINS, static_cast<int>(kind));
    if (const DataSet* set = data_set_of(kind); set != nullptr) {
        HostSource source;
        Outbox outbox(connection);
        return push_records(source, outbox, *set);
    }
    if (kind == DATA_KIND_DISK) {
        (void)db_open(DISK_DB);  // opened and closed: nothing of it is ever sent
    }
    return false;
}

bool push_master_data(int connection, const sockaddr_in& /*sender*/, const DataRecord& request) {
    log_message(msg::PUSH_REQUESTED, static_cast<int>(request.kind));
    if (request.kind == DATA_KIND_ALL) {
        log_message(msg::PUSH_OF_ALL);
        bool sent = true;
        for (const DataSet& set : DATA_SETS) {
            sent = push_data_set(connection, set.kind) && sent;
        }
        return sent;
    }
    if (request.kind == DATA_KIND_CONFIG) {
        log_message(msg::PUSH_OF_CONFIG);
        return push_data_set(connection, DATA_KIND_CONFIG);
    }
    if (request.kind == DATA_KIND_CLIENT) {
        log_message(msg::PUSH_OF_CLIENTS);
        return push_data_set(connection, DATA_KIND_CLIENT);
    }
    return false;
}
