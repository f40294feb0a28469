#include "bulk.h"

#include <fmt/format.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <system_error>
#include <utility>
#include <vector>

#include "ctl/audit.h"
#include "ctl/configured_role.h"
#include "ctl/console.h"
#include "ctl/session.h"
#include "ctl/verbs.h"
#include "data_sets.h"
#include "json_lines.h"
#include "keys.h"

namespace {

// --- load ----------------------------------------------------------------------------------------

// Throws at the first line that is no record which may be stored.
std::vector<StoredRecord> read_lines(std::istream& input, StoreOptions options) {
    std::vector<StoredRecord> records;
    std::string line;
    for (std::size_t number = 1; std::getline(input, line); ++number) {
        StoredRecord record;
        if (const std::string fault = from_json_line(line, record); !fault.empty()) {
            throw WrongUse(options.place, fmt::format("line {} {}", number, fault));
        }
        options.key = record.key;
        check_change(options, record.value);
        records.push_back(std::move(record));
    }
    if (input.bad()) {
        throw WrongUse(options.place, "cannot be read to its end");
    }
    return records;
}

std::vector<StoredRecord> read_place(const StoreOptions& options) {
    if (options.place == "-") {
        return read_lines(std::cin, options);
    }
    std::ifstream file(options.place);
    if (!file) {
        throw WrongUse(options.place, std::strerror(errno));
    }
    return read_lines(file, options);
}

// The record whose stamp and hints stand for all: one that the slave fetches, where there is one.
std::string key_for_all(StoreOptions options, const std::vector<StoredRecord>& records) {
    for (const StoredRecord& record : records) {
        options.key = record.key;
        if (pair_replication(options) == Replication::PUSHED) {
            return record.key;
        }
    }
    return records.front().key;
}

int put_all(Store& store, const std::vector<StoredRecord>& records, const std::string& label) {
    ProgressBar bar(label);
    for (std::size_t n = 0; n < records.size(); ++n) {
        if (const int result = store.put(records[n].key, records[n].value); result != 0) {
            return result;
        }
        bar.show(n + 1, records.size());
    }
    return 0;
}

// --- backup and restore --------------------------------------------------------------------------

std::string base_name(const std::string& path) {
    return std::filesystem::path(path).filename().string();
}

// The list that a slave kept when it shrank.
bool is_before_shrink(const StoreOptions& options) {
    return base_name(options.place) == base_name(BEFORE_SHRINK_CLIENT_DB);
}

// The store that a copy of that name is of, unless the operator names one.
std::string restored_path(const StoreOptions& options) {
    for (const char* path : {CONFIG_DB, CLIENT_DB, DISK_DB}) {
        if (base_name(options.place) == base_name(path)) {
            return path;
        }
    }
    return is_before_shrink(options) ? CLIENT_DB : options.path();
}

void check_copy(const StoreOptions& options, const std::string& path) {
    if (const int error = db_verify(options.place.c_str()); error != 0) {
        throw WrongUse(options.place,
                       fmt::format("is not a sound copy: {}", store_error_text(error)));
    }
    const bool meant_for_a_slave = options.force || is_before_shrink(options);
    if (path == CLIENT_DB && !meant_for_a_slave && is_configured_slave()) {
        throw WrongUse(path,
                       "this host is the slave: the master's next set overwrites it; --force "
                       "restores it anyway");
    }
}

}  // namespace

int load(const StoreOptions& options) {
    const std::vector<StoredRecord> records = read_place(options);
    if (records.empty()) {
        complain("{}: has no record; nothing is changed", options.place);
        return EXIT_FINE;
    }
    StoreOptions all = options;
    all.key = key_for_all(options, records);
    check_place(all);
    begin_changes();
    const std::unique_ptr<Store> store = open_store(options.path());
    if (!store) {
        return EXIT_PROBLEM;
    }
    const int result = put_all(*store, records, options.path());
    const int closed = store->close();
    if (const int error = result != 0 ? result : closed; error != 0) {
        complain("{}: nothing is loaded: {}", options.path(), store_error_text(error));
        return EXIT_PROBLEM;
    }
    report_change(all, "load", counted(records.size(), "record"));
    return follow_with_stamp(all);
}

int backup(const StoreOptions& options) {
    std::error_code error;
    std::filesystem::create_directories(options.place, error);
    if (error) {
        throw WrongUse(options.place, error.message());
    }
    int status = EXIT_FINE;
    for (const std::string path : {CONFIG_DB, CLIENT_DB, DISK_DB}) {
        if (!std::filesystem::exists(path, error)) {
            continue;
        }
        const std::string target = options.place + "/" + base_name(path);
        const std::string failure = db_copy(path, target);
        if (failure.empty()) {
            say("{}: {}", target, bytes_text(std::filesystem::file_size(target, error)));
        } else {
            complain("{} is not backed up: {}", path, failure);
            status = EXIT_PROBLEM;
        }
    }
    return status;
}

int restore(const StoreOptions& options) {
    const std::string path = restored_path(options);
    check_copy(options, path);
    begin_changes();
    if (const std::string failure = db_copy(options.place, path); !failure.empty()) {
        complain("{} stays as it was: {}", path, failure);
        return EXIT_PROBLEM;
    }
    log_change(fmt::format("restore {}", path), options.place);
    if (path == CLIENT_DB && is_configured_slave()) {
        complain(
            "the master's next set takes its place: restore it on the master, too, and bump it");
    } else if (path == CLIENT_DB) {
        complain("\"quorsyncctl store bump client\" makes the slave fetch it");
    } else if (path == CONFIG_DB) {
        complain("the settings take effect when the daemon is restarted");
    }
    return EXIT_FINE;
}
