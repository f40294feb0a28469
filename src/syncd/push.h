// Pushing the master's records to a slave that asked for them. Main thread of the master,
// and the one that answers strangers.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <optional>
#include <vector>

#include "data_sets.h"
#include "peer_message.h"
#include "stamps.h"
#include "store.h"

// Sends the data sets that `request.kind` selects on `connection` (a TCP descriptor of the caller,
// possibly one on which every send fails). A failed send is logged, and the next record is tried.
// Returns whether all of it has been sent; false where nothing is to send. A set is given up when
// its receiver is too slow as a whole (TcpPatience).
bool push_master_data(int connection, const sockaddr_in& sender, const DataRecord& request);

// Sends one data set and its closing stamp record; none of it when its file or stamp cannot be
// read. Logs every record of the file as RECORD_SENT, also those that stay here, and what could not
// be sent. A closing record of the clients that cannot be sent also raises event 720003. Returns
// whether all of it, the closing record too, has been sent.
bool push_data_set(int connection, std::uint32_t kind);

// What a push reads and where it goes. Tests stand in for both.
class PushSource {
public:
    virtual ~PushSource() = default;
    virtual std::optional<StampPair> stamps() = 0;  // nothing when they cannot be read

    // A walk over the records that the file has now, as RecordWalk (store.h) is one.
    virtual void begin_walk(const char* path) = 0;
    virtual bool next_chunk(std::vector<StoredRecord>& chunk) = 0;
    virtual bool failed() const = 0;
};

class PushTarget {
public:
    virtual ~PushTarget() = default;
    virtual void add(const PeerMessage& message) = 0;
    virtual bool send() = 0;         // whether all that was added since the last call has gone out
    virtual bool whole() const = 0;  // whether all that was ever added has
};

// The records of one set and their closing record. Whether all of it has been sent.
bool push_records(PushSource& source, PushTarget& target, const DataSet& set);
