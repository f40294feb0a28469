#include "record_sink.h"

#include <malloc.h>

#include <cstdint>

#include "client_list.h"
#include "keys.h"
#include "log.h"

namespace {

// Holds 600,000 clients; memory is taken as the file grows, and given back with the batch.
constexpr std::uint32_t BATCH_CACHE = 256U << 20U;

bool may_be_stored(const char* key, bool set_failed) {
    if (set_failed) {
        log_message(msg::STAMP_OF_BROKEN_SET, key);
    }
    return !set_failed;
}

}  // namespace

RecordSink::~RecordSink() {
    close_batch();
    note_end_of_push();
    if (clients_stored_) {
        (void)malloc_trim(0);  // the cache was many small pieces
    }
}

void RecordSink::apply_data_record(const DataRecord& record) {
    const std::string key(field_text(record.key));
    const std::string value(field_text(record.value));
    log_message(msg::RECORD_RECEIVED, static_cast<int>(record.kind), key.c_str(), value.c_str());
    if (record.kind == DATA_KIND_CLIENT) {
        apply_client(key, value);
    } else {
        close_batch();
    }
    if (record.kind == DATA_KIND_CONFIG) {
        apply_setting(key, value);
    }
}

void RecordSink::apply_client(const std::string& key, const std::string& value) {
    const ClientListWork work;
    if (!push_begun_) {
        push_begun_ = true;
        clients_failed_ = !begin_client_push();
    }
    if (key != DBVER_KEY) {
        put_client(key, value);
        return;
    }
    close_batch();
    if (may_be_stored(KEY_CLIENT_VERSION, clients_failed_)) {
        complete_client_list(value.c_str());
    }
}

void RecordSink::apply_setting(const std::string& key, const std::string& value) {
    if (key != DBVER_KEY) {
        config_failed_ = !db_store(CONFIG_DB, key.c_str(), value.c_str()) || config_failed_;
    } else if (may_be_stored(KEY_CONFIG_VERSION, config_failed_)) {
        (void)db_put(CONFIG_DB, KEY_CONFIG_VERSION, value.c_str());
    }
}

void RecordSink::put_client(const std::string& key, const std::string& value) {
    const bool refused = clients_failed_ && client_list_put_back();
    if (refused || (!clients_ && !open_batch())) {
        clients_failed_ = true;
        return;
    }
    if (const int result = clients_->put(key, value); result != 0) {
        log_message(msg::RECORD_NOT_STORED, store_error_text(result));
        clients_failed_ = true;
    }
    clients_stored_ = true;
}

bool RecordSink::open_batch() {
    clients_ = db_open(CLIENT_DB, BATCH_CACHE);
    if (clients_ && clients_->damaged()) {
        // Everything in it comes from the master anyway; what this connection brought is lost.
        clients_.reset();
        clients_failed_ = clients_failed_ || clients_stored_;
        (void)replace_damaged_client_db();
        clients_ = db_open(CLIENT_DB, BATCH_CACHE);
    }
    if (clients_ && (!clients_->usable() || client_list_put_back())) {
        clients_.reset();
    }
    return clients_ != nullptr;
}

void RecordSink::close_batch() {
    if (clients_) {
        const ClientListWork work;
        if (const int result = clients_->close(); result != 0) {
            log_message(msg::STORE_NOT_FLUSHED, CLIENT_DB, store_error_text(result));
            clients_failed_ = true;
        }
        clients_.reset();
    }
}
