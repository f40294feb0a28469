#include "store_files.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "configured_role.h"
#include "console.h"
#include "data_sets.h"
#include "keys.h"
#include "peer_message.h"
#include "stamps.h"

std::vector<std::string> names_in_store_directory() {
    std::vector<std::string> names;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(STORE_DIRECTORY, error)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string peer_of_copy(std::string_view name) {
    constexpr std::string_view END = ".db";
    const std::string_view address =
        name.substr(0, name.size() - std::min(name.size(), END.size()));
    return name.ends_with(END) && is_dotted_address(address) ? std::string(address) : "";
}

std::string store_path(const std::string& name) {
    if (const DataSet* set = data_set_named(name)) {
        return set->path;
    }
    return name == "disk" ? DISK_DB : name;
}

void complain_about_file(const std::string& path, const std::string& failure) {
    std::error_code no_such_path;
    const std::string directory = std::filesystem::absolute(path, no_such_path).parent_path();
    if (!no_such_path && access(directory.c_str(), F_OK) != 0) {
        complain("{}: directory {}: {}", path, directory, std::strerror(errno));
    } else if (access(path.c_str(), F_OK) != 0) {
        complain("{}: {}; \"config\", \"client\", \"disk\" or a path name a file", path,
                 std::strerror(errno));
    } else if (geteuid() != 0) {
        complain("{}; run this as root", failure);
    } else {
        complain("{}; \"quorsyncctl store verify --file {}\" examines it", failure, path);
    }
}

std::unique_ptr<Store> open_store(const std::string& path) {
    std::unique_ptr<Store> store = db_open(path.c_str());
    if (const std::string failure = open_failure(store); !failure.empty()) {
        store.reset();  // unlocked before anybody reads about it
        complain_about_file(path, failure);
    }
    return store;
}

std::optional<std::map<std::string, std::string>> read_records(const std::string& path) {
    std::map<std::string, std::string> records;
    RecordWalk walk(path.c_str());
    std::vector<StoredRecord> chunk;
    while (walk.next_chunk(chunk)) {
        for (StoredRecord& record : chunk) {
            records.insert_or_assign(std::move(record.key), std::move(record.value));
        }
    }
    if (walk.failed()) {
        complain_about_file(path, walk.failure());
        return std::nullopt;
    }
    return records;
}

bool holds_clients(const std::string& path) {
    return path.substr(path.rfind('/') + 1) == "client.db";
}

bool holds_settings(const std::string& path) {
    const std::string name = path.substr(path.rfind('/') + 1);
    return name == "config.db" || !peer_of_copy(name).empty();
}

Replication replication_of(bool client_record, std::string_view key) {
    if (travels(client_record ? CLIENT_SET : CONFIG_SET, key)) {
        return Replication::PUSHED;
    }
    if (std::any_of(DATA_SETS.begin(), DATA_SETS.end(),
                    [key](const DataSet& set) { return key == set.stamp_key; })) {
        return Replication::STAMP;
    }
    return key == KEY_DSVER ? Replication::DSVER : Replication::NONE;
}

bool is_mirrored(Replication replication) {
    return replication == Replication::PUSHED || replication == Replication::STAMP;
}

std::string message_fault(Replication replication, std::string_view key, std::string_view value) {
    if (replication == Replication::PUSHED && !fits_data_record(key, value)) {
        return fmt::format("too long for a message: key {} of {} bytes, value {} of {}", key.size(),
                           MAX_RECORD_KEY, value.size(), MAX_RECORD_VALUE);
    }
    if (replication == Replication::PUSHED && key == DBVER_KEY) {
        return "a slave would take it for the stamp that ends the set";
    }
    if (replication == Replication::STAMP && value.size() > MAX_STAMP) {
        return fmt::format("a stamp of {} bytes; only {} are compared", value.size(), MAX_STAMP);
    }
    if (replication == Replication::STAMP && value.find('#') != std::string_view::npos) {
        return "a \"#\" separates the two stamps of a message";
    }
    if (replication == Replication::DSVER && value.size() > sizeof HeartbeatBody::dsver) {
        return fmt::format("a heartbeat carries {} bytes of it", sizeof HeartbeatBody::dsver);
    }
    return {};
}
