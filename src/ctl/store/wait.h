// Waiting on the master until the slave has what was changed.
#pragma once

#include <chrono>
#include <string>

#include "data_sets.h"

// Whether this host's daemon runs as master, so that a slave may take a stamp from it.
bool serves_as_master();

// Waits until two heartbeats that were answered with the set's new stamp have led to no request:
// the slave has it. Shows on a terminal how far it is. The exit code; a problem at the end of
// `limit`, and where the daemon of this host stops being master.
int wait_for_slave(const DataSet& set, const std::string& stamp, std::chrono::seconds limit);
