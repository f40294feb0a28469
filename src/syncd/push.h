// Pushing the master's records to a slave that asked for them. Main thread of the master,
// and the one that answers strangers.
#pragma once

#include <netinet/in.h>

#include <cstdint>

#include "peer_message.h"

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
