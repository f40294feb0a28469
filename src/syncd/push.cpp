#include "push.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "events.h"
#include "keys.h"
#include "log.h"
#include "owned.h"
#include "store.h"
#include "store_walk.h"
#include "tcp.h"

namespace {

struct DataSet {
    std::uint32_t kind;
    const char* path;
    const char* stamp_key;
};

constexpr DataSet CONFIG_SET = {DATA_KIND_CONFIG, CONFIG_DB, KEY_CONFIG_VERSION};
constexpr DataSet CLIENT_SET = {DATA_KIND_CLIENT, CLIENT_DB, KEY_CLIENT_VERSION};

bool is_pushed(const DataSet& set, const std::string& key) {
    return set.kind == DATA_KIND_CLIENT ||
           std::find(PUSH_CONFIG_KEYS.begin(), PUSH_CONFIG_KEYS.end(), key) !=
               PUSH_CONFIG_KEYS.end();
}

bool send_record(int connection, const DataSet& set, std::string_view key, std::string_view value) {
    const PeerMessage message = make_data_record(set.kind, key, value);
    if (TcpSendAll(connection, &message, sizeof message) != 0) {
        write_log(LOG_ERROR, "send data error:%s\n", strerror(errno));
        return false;
    }
    return true;
}

void push_record(int connection, const DataSet& set, const StoredRecord& record) {
    write_log(LOG_DEBUG, " send data: %s = %s\n", record.key.c_str(), record.value.c_str());
    if (!is_pushed(set, record.key)) {
        return;
    }
    if (!fits_data_record(record.key, record.value)) {
        // A cut record would be a wrong one on the slave.
        write_log(LOG_ERROR, "record too long, not sent: %s (key %zu bytes, value %zu bytes)",
                  record.key.c_str(), record.key.size(), record.value.size());
        return;
    }
    (void)send_record(connection, set, record.key, record.value);
}

void push_stamp(int connection, const DataSet& set, const std::string& stamp) {
    write_log(LOG_DEBUG, " send data: %s = %s\n", DBVER_KEY, stamp.c_str());
    if (!send_record(connection, set, DBVER_KEY, stamp) && set.kind == DATA_KIND_CLIENT) {
        (void)post_event(EVENT_ERROR, EVENT_SEND_FAILED, errno, nullptr);
    }
}

// The stamp is read before the walk: a record changed meanwhile comes with the next stamp.
void push_records(int connection, const DataSet& set) {
    const OwnedText stamp(db_get_settled(CONFIG_DB, set.stamp_key));
    RecordWalk walk(set.path);
    std::vector<StoredRecord> chunk;
    while (walk.next_chunk(chunk)) {
        for (const StoredRecord& record : chunk) {
            push_record(connection, set, record);
        }
    }
    if (walk.failed()) {
        // Without its stamp the slave asks again at the next heartbeat.
        write_log(LOG_ERROR, "%s cannot be read to its end, not sent", set.path);
        return;
    }
    push_stamp(connection, set, std::string(stamp ? comparable_stamp(stamp.get()) : "null"));
}

}  // namespace

void push_data_set(int connection, std::uint32_t kind) {
    write_log(LOG_DEBUG, "db:%d", static_cast<int>(kind));
    if (kind == DATA_KIND_CONFIG) {
        push_records(connection, CONFIG_SET);
    } else if (kind == DATA_KIND_CLIENT) {
        push_records(connection, CLIENT_SET);
    } else if (kind == DATA_KIND_DISK) {
        (void)db_open(DISK_DB);  // opened and closed: nothing of it is ever sent
    }
}

void push_master_data(int connection, const sockaddr_in& /*sender*/, const DataRecord& request) {
    write_log(LOG_DEBUG, "send master's data to slave, data.db:%d", static_cast<int>(request.kind));
    if (request.kind == DATA_KIND_ALL) {
        write_log(LOG_DEBUG, "send all data");
        push_data_set(connection, DATA_KIND_CONFIG);
        push_data_set(connection, DATA_KIND_CLIENT);
    } else if (request.kind == DATA_KIND_CONFIG) {
        write_log(LOG_DEBUG, "send config data");
        push_data_set(connection, DATA_KIND_CONFIG);
    } else if (request.kind == DATA_KIND_CLIENT) {
        write_log(LOG_DEBUG, "send client data");
        push_data_set(connection, DATA_KIND_CLIENT);
    }
}
