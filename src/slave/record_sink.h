// Pushed records on their way into the slave's own store.
//
// Client records of one connection are put into one open file with a large cache: a file open, two
// flushes and a close per record would let a few hundred clients outlast the miss counter.
#pragma once

#include "client_list/client_list.h"
#include "peer_message.h"
#include "state_page.h"

// The records of one connection. Receiver thread only. While a batch is open, client.db is locked:
// close it whenever the connection falls silent. The destructor closes it.
class RecordSink {
public:
    // `of_master`: they come from one of the master's addresses, so they may have been asked for.
    explicit RecordSink(bool of_master, ClientList& clients = client_list())
        : clients_(clients), push_{.of_master = of_master} {}
    RecordSink(const RecordSink&) = delete;
    RecordSink& operator=(const RecordSink&) = delete;
    ~RecordSink();

    // Stores one record. Kind 1 goes to config.db, kind 2 to the client list; the key "dbver"
    // becomes that set's stamp in config.db, unless a record of the set could not be stored on this
    // connection, or the list is no longer the one that was being filled; either is logged. Other
    // kinds are ignored. A damaged client.db is replaced by an empty one. Logs every record as
    // RECORD_RECEIVED. Returns whether it was the closing record of a push of clients that was
    // asked for.
    bool apply_data_record(const DataRecord& record);

    bool has_batch() { return clients_.holds_batch(push_); }

    // Flushes and closes the open batch, if there is one. A failure is logged.
    void close_batch() { clients_.flush(push_); }

    // A beat back came over this connection and has been dealt with.
    void answered() { clients_.answered(push_); }

private:
    void apply_setting(const std::string& key, const std::string& value);

    ClientList& clients_;
    ClientPush push_;
    bool config_failed_ = false;
    page::Transfer reception_;
};
