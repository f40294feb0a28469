// Pushed records on their way into the slave's own store.
//
// Client records of one connection are put into one open file with a large cache: a file open, two
// flushes and a close per record would let a few hundred clients outlast the miss counter. The
// batch is flushed before the stamp that closes the set is stored, so that a new stamp never stands
// without its records.
#pragma once

#include <memory>
#include <string>

#include "peer_message.h"
#include "store.h"

// The records of one connection. Receiver thread only. While a batch is open, client.db is locked:
// close it before anything else touches that file, and whenever the connection falls silent. The
// destructor closes it.
class RecordSink {
public:
    RecordSink() = default;
    RecordSink(const RecordSink&) = delete;
    RecordSink& operator=(const RecordSink&) = delete;
    ~RecordSink();

    // Stores one record. Kind 1 goes to config.db, kind 2 to client.db; the key "dbver" becomes
    // that set's stamp in config.db, unless a record of the set could not be stored on this
    // connection ("... not stored: ..." at LOG_ERROR). Other kinds are ignored. A damaged client.db
    // is replaced by an empty one. Logs "data %d: %s=%s" for every record (LOG_INFO).
    void apply_data_record(const DataRecord& record);

    bool has_batch() const { return clients_ != nullptr; }

    // Flushes and closes the open batch, if there is one. "%s cannot be flushed:%s" (LOG_ERROR).
    void close_batch();

private:
    void apply_client(const std::string& key, const std::string& value);
    void apply_setting(const std::string& key, const std::string& value);
    void put_client(const std::string& key, const std::string& value);
    bool open_batch();

    std::unique_ptr<Store> clients_;
    bool push_begun_ = false;  // of clients
    bool config_failed_ = false;
    bool clients_failed_ = false;
    bool clients_stored_ = false;  // any, on this connection
};
