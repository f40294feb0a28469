#include "bulk.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string_view>
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
#include "replace_file.h"
#include "store_backup.h"

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

// Throws where one of the records may not be changed on this host, or not under its new stamp.
void check_records(const StoreOptions& all, const std::vector<StoredRecord>& records) {
    StoreOptions options = all;
    Keys keys;
    for (const StoredRecord& record : records) {
        keys.insert(record.key);
        options.key = record.key;
        if (pair_replication(options) == Replication::STAMP) {
            check_host(options);
            check_clients(options, {}, {});
        }
    }
    check_place(all);
    check_clients(all, keys, {});
}

int put_all(Store& store, const std::vector<StoredRecord>& records, const std::string& label) {
    ProgressBar bar(label);
    for (std::size_t n = 0; n < records.size(); ++n) {
        if (const int result = store.put(records[n].key, records[n].value); result != 0) {
            return result;
        }
        bar.tell(fmt::format("{} of {} records", n + 1, records.size()));
    }
    return 0;
}

// --- backup and restore --------------------------------------------------------------------------

// Of the file that a restore has replaced, behind its own name.
constexpr std::string_view BEFORE_RESTORE = ".before-restore";

std::string base_name(const std::string& path) {
    return std::filesystem::path(path).filename().string();
}

// The list that a slave kept when it shrank.
bool is_before_shrink(const StoreOptions& options) {
    return base_name(options.place) == base_name(BEFORE_SHRINK_CLIENT_DB);
}

// The store that is to be replaced: the operator names it, or the copy's name does.
std::string restored_path(const StoreOptions& options) {
    constexpr std::pair<const char*, const char*> COPIES[] = {
        {CONFIG_DB, CONFIG_DB},
        {CLIENT_DB, CLIENT_DB},
        {PREVIOUS_CLIENT_DB, CLIENT_DB},
        {BEFORE_SHRINK_CLIENT_DB, CLIENT_DB},
        {DISK_DB, DISK_DB},
    };
    if (!options.restored.empty()) {
        const std::string path = store_path(options.restored);
        check_path(path);
        return path;
    }
    std::string name = base_name(options.place);
    if (name.ends_with(BEFORE_RESTORE)) {
        name.resize(name.size() - BEFORE_RESTORE.size());
    }
    for (const auto& [copy, path] : COPIES) {
        if (name == base_name(copy)) {
            return path;
        }
    }
    throw WrongUse(options.place, "its name is that of no store; name the store with --file");
}

// A second name for the file `path` while another one takes its place; what `path` was then stays
// under the name that ends in BEFORE_RESTORE. Not before: that may be the copy that is restored.
class ReplacedFile {
public:
    explicit ReplacedFile(const std::string& path) {
        std::error_code unknown;
        const std::filesystem::path linked = std::filesystem::weakly_canonical(path, unknown);
        const std::string target = unknown ? path : linked.string();
        kept_ = fmt::format("{}{}", target, BEFORE_RESTORE);
        fresh_ = fmt::format("{}.new", kept_);
        (void)unlink(fresh_.c_str());  // left by a process that was killed
        error_ = link(target.c_str(), fresh_.c_str()) == 0 || errno == ENOENT ? 0 : errno;
    }
    ~ReplacedFile() { (void)unlink(fresh_.c_str()); }
    ReplacedFile(const ReplacedFile&) = delete;
    ReplacedFile& operator=(const ReplacedFile&) = delete;

    // Why the file cannot be kept; empty when it can.
    std::string failure() const {
        return error_ == 0 ? "" : fmt::format("{}: {}", kept_, std::strerror(error_));
    }

    void keep() const {
        if (const int error = rename_file(fresh_, kept_); error != 0 && error != ENOENT) {
            complain("{}: {}; what was there before is lost", kept_, std::strerror(error));
        }
    }

private:
    std::string kept_;
    std::string fresh_;
    int error_ = 0;
};

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

// Creates the directory where it is missing. Throws where another user could change its entries:
// what he puts there in the place of a copy would be written by root, or be restored.
void prepare_directory(const std::string& path) {
    std::error_code error;
    const mode_t mask = umask(0777);
    umask(mask | S_IWGRP | S_IWOTH);
    std::filesystem::create_directories(path, error);
    umask(mask);
    struct stat status {};
    if (error || stat(path.c_str(), &status) != 0) {
        throw WrongUse(path, error ? error.message() : std::strerror(errno));
    }
    const bool trusted = status.st_uid == 0 || status.st_uid == geteuid();
    if (!trusted || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        throw WrongUse(path, "other users may write into it; take a directory of your own");
    }
    if (std::filesystem::equivalent(path, STORE_DIRECTORY, error)) {
        throw WrongUse(path, "is where the stores themselves are");
    }
}

// Says what a restored store needs besides.
void print_hint_of_restore(const std::string& path) {
    if (path == CLIENT_DB && is_configured_slave()) {
        complain(
            "the master's next set takes its place: restore it on the master, too, and bump it");
    } else if (path == CLIENT_DB) {
        complain("\"quorsyncctl store bump client\" makes the slave fetch it");
    } else if (path == CONFIG_DB) {
        complain("a change of ha, server_list or master takes effect when the daemon is restarted");
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
    check_records(all, records);
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
    prepare_directory(options.place);
    std::size_t saved = 0;
    std::size_t failed = 0;
    for (const std::string path : {CONFIG_DB, CLIENT_DB, DISK_DB}) {
        if (access(path.c_str(), F_OK) != 0 && errno == ENOENT) {
            continue;
        }
        const std::string target = options.place + "/" + base_name(path);
        const std::string failure = db_back_up(path, target);
        if (failure.empty()) {
            std::error_code unknown;
            say("{}: {}", target, bytes_text(std::filesystem::file_size(target, unknown)));
            ++saved;
        } else {
            complain("{} is not backed up: {}", path, failure);
            ++failed;
        }
    }
    if (saved + failed == 0) {
        complain("{}: nothing is backed up: {} has no store", options.place, STORE_DIRECTORY);
    }
    return saved != 0 && failed == 0 ? EXIT_FINE : EXIT_PROBLEM;
}

int restore(const StoreOptions& options) {
    const std::string path = restored_path(options);
    check_copy(options, path);
    begin_changes();
    const ReplacedFile replaced(path);
    std::string failure = replaced.failure();
    failure = failure.empty() ? db_copy(options.place, path) : failure;
    if (!failure.empty()) {
        complain("{} stays as it was: {}", path, failure);
        return EXIT_PROBLEM;
    }
    replaced.keep();
    log_change(fmt::format("restore {}", path), options.place);
    // A daemon whose push was interrupted would go back to it and lose what was restored.
    if (path == CLIENT_DB && unlink(PREVIOUS_CLIENT_DB) != 0 && errno != ENOENT) {
        complain("{} is to be removed by hand: {}", PREVIOUS_CLIENT_DB, std::strerror(errno));
    }
    print_hint_of_restore(path);
    return EXIT_FINE;
}
