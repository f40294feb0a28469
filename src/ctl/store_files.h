// The database files as the operator names them, and what of them the pair mirrors.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "store.h"

// The names in STORE_DIRECTORY, sorted; none when it cannot be read.
std::vector<std::string> names_in_store_directory();

// The address that a copy of a peer's config.db has for its name, "10.77.0.2.db"; empty for any
// other name.
std::string peer_of_copy(std::string_view name);

// "config", "client" and "disk" are the daemon's own files; anything else is a path.
std::string store_path(const std::string& name);

// Complains of a file that is missing or cannot be used, with what helps.
void complain_about_file(const std::string& path, const std::string& failure);

// Opens the file; null after a complaint that says what is wrong with it and what helps.
std::unique_ptr<Store> open_store(const std::string& path);

// All records of a file, sorted; nothing after a complaint. The file is locked only while a chunk
// of it is read.
std::optional<std::map<std::string, std::string>> read_records(const std::string& path);

// Whether a file of that name holds boot clients, all of which are mirrored, or settings.
bool holds_clients(const std::string& path);
bool holds_settings(const std::string& path);

// How a record gets to the other server.
enum class Replication {
    NONE,    // it stays on its own
    PUSHED,  // as a data record
    STAMP,   // at the end of its data set
    DSVER,   // to the master, with every heartbeat
};
Replication replication_of(bool client_record, std::string_view key);

// Whether the slave has the record as the master has it.
bool is_mirrored(Replication replication);

// Why a message cannot carry the record, or an empty text.
std::string message_fault(Replication replication, std::string_view key, std::string_view value);
