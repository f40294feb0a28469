// The version check: what a slave asks for when its stamps differ from the master's. A difference
// always means the whole set; nothing remembers an outstanding request, so each further beat back
// repeats it until the stamps agree. Receiver thread only.
#pragma once

#include <cstdint>

#include "peer_message.h"

// Compares the master's stamps in `answer` with the own ones and asks for each set that differs,
// configuration first, at the address of the master from which `connection` comes. Logs for each
// such set CONFIG_DIFFERS or CLIENTS_DIFFER and both stamps, and why nothing can be compared. Where
// the client stamps agree, a
// list that a broken push left behind is put back.
void data_sync_trigger(int connection, const DataRecord& answer);

// Sends a data request for `kind` to `master_address`. `connection` is not used. A failure is
// logged, and the next beat back makes the request again.
void start_data_sync(int connection, const char* master_address, std::uint32_t kind);
