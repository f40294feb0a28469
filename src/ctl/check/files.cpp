// The part of `check` about the database files.
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <fstream>
#include <optional>

#include "ctl/client_count.h"
#include "ctl/console.h"
#include "ctl/store_files.h"
#include "data_sets.h"
#include "findings.h"
#include "keys.h"
#include "store.h"

namespace {

constexpr std::uint32_t OLDEST_FORMAT = 8;
constexpr std::uint32_t NEWEST_FORMAT = 9;
constexpr std::size_t NAMED_KEYS = 5;

std::string remedy_for(const std::string& path) {
    if (path == CLIENT_DB) {
        return "a slave fetches it again with the next client set; on a master, restore a backup";
    }
    if (path == PREVIOUS_CLIENT_DB) {
        return "remove it; a take-over before the push has ended then serves an incomplete list";
    }
    if (path == BEFORE_SHRINK_CLIENT_DB) {
        return "remove it";
    }
    return path == CONFIG_DB ? "restore a backup" : "remove it; the master fetches the copy again";
}

// What speaks against the file's format, empty if nothing does.
std::string format_fault(const std::string& path) {
    const auto page = db_format(path.c_str());
    if (!page) {
        return "is too short to be a database";
    }
    if (page->magic != HASH_MAGIC) {
        return fmt::format("is not a hash database in this host's byte order (magic 0x{:06x})",
                           page->magic);
    }
    if (page->version < OLDEST_FORMAT || page->version > NEWEST_FORMAT) {
        return fmt::format("has hash format {}, not {} or {}", page->version, OLDEST_FORMAT,
                           NEWEST_FORMAT);
    }
    return {};
}

// Verifies the file, which exists. Returns whether it can be read.
bool check_file(const std::string& path, Findings& findings) {
    const std::string name = path.substr(path.rfind('/') + 1);
    if (access(path.c_str(), R_OK) != 0) {
        findings.unknown(name, fmt::format("{} cannot be read: {}", path, strerror(errno)),
                         "run this as root");
        return false;
    }
    if (const std::string fault = format_fault(path); !fault.empty()) {
        findings.problem(name, fmt::format("{} {}", path, fault), remedy_for(path));
        return false;
    }
    const std::unique_ptr<Store> store = db_open(path.c_str());
    if (store && store->usable()) {
        findings.good(name, fmt::format("sound, hash format {}", db_format(path.c_str())->version));
        return true;
    }
    if (store && store->damaged()) {
        findings.problem(name, fmt::format("{} is damaged: it does not verify", path),
                         remedy_for(path));
    } else {
        findings.unknown(name, fmt::format("{} cannot be opened: {}", path, open_failure(store)),
                         "try again; another process may hold its lock");
    }
    return false;
}

// --- Records that no message carries -----------------------------------------------------------

struct Misfits {
    std::size_t count = 0;
    std::vector<std::string> first;
};

void judge_record(const StoredRecord& record, bool client, Misfits& misfits) {
    const std::string fault =
        message_fault(replication_of(client, record.key), record.key, record.value);
    if (fault.empty()) {
        return;
    }
    if (++misfits.count <= NAMED_KEYS) {
        misfits.first.push_back(fmt::format("\"{}\" {}", record.key, fault));
    }
}

// Walks the file; it is open only while a piece of it is read.
void check_records(const char* path, std::string_view name, Findings& findings) {
    RecordWalk walk(path);
    std::vector<StoredRecord> chunk;
    Misfits misfits;
    std::size_t records = 0;
    while (walk.next_chunk(chunk)) {
        for (const StoredRecord& record : chunk) {
            judge_record(record, path == std::string_view(CLIENT_DB), misfits);
        }
        records += chunk.size();
    }
    if (walk.failed()) {
        findings.unknown(name, fmt::format("{} cannot be read to its end", path), "try again");
    } else if (misfits.count == 0) {
        findings.good(name, fmt::format("{}, all can be sent", counted(records, "record")));
    } else {
        findings.problem(name,
                         fmt::format("{} of {} cannot be sent: {}{}", misfits.count,
                                     counted(records, "record"), fmt::join(misfits.first, ", "),
                                     misfits.count > NAMED_KEYS
                                         ? fmt::format(" and {} more", misfits.count - NAMED_KEYS)
                                         : ""),
                         "correct them; a slave never receives them as they are");
    }
}

// --- The directory -----------------------------------------------------------------------------

// What a slave keeps from the begin of a push of the clients to its end.
void check_previous_clients(const std::string& path, const std::string& name, Findings& findings) {
    struct stat kept {};
    if (stat(path.c_str(), &kept) == 0 && check_file(path, findings)) {
        const std::time_t age = std::time(nullptr) - kept.st_ctime;  // since it got this name
        findings.warning(
            name,
            fmt::format("the client list from before a push that began {} ago and has not ended; a "
                        "take-over or a start as the master restores it",
                        age_text(age)),
            "if it stays, \"quorsyncctl timeline\" shows what interrupts the pushes");
    }
}

// What a slave keeps of the clients when they become few: whether that was meant, nobody knows.
void check_before_shrink(const std::string& path, const std::string& name, Findings& findings) {
    struct stat kept {};
    if (stat(path.c_str(), &kept) != 0 || !check_file(path, findings)) {
        return;
    }
    const std::size_t before = db_count(path.c_str()).value_or(0);
    const std::size_t now = client_count().value_or(0);
    if (has_shrunk(before, now)) {
        const std::time_t age = std::time(nullptr) - kept.st_ctime;  // since it got this name
        findings.problem(
            name,
            fmt::format("the clients shrank {} ago: {} -> {} records", age_text(age), before, now),
            fmt::format("\"quorsyncctl store restore {}\" here or with a copy on the master; if it "
                        "was meant, remove it",
                        path));
    }
}

void check_leftover(const std::string& path, const std::string& name, Findings& findings) {
    if (name.starts_with("__db.")) {
        findings.warning(
            name, "left by a process that was killed while it created the file, or in use",
            fmt::format("if it stays, remove {}; the file cannot be created before", path));
    } else if (name.ends_with(".damaged")) {
        findings.warning(name, "was found damaged and replaced",
                         fmt::format("remove {} after you have examined it", path));
    } else if (name.ends_with(".db.new") || name.find(".db.changed") != std::string::npos) {
        findings.warning(name, "left by a process that was killed while it replaced the file",
                         fmt::format("remove {}", path));
    }
}

}  // namespace

bool check_files(Findings& findings) {
    bool config_readable = false;
    if (access(CONFIG_DB, F_OK) != 0 && errno == ENOENT) {
        findings.problem("config.db", fmt::format("{} is missing", CONFIG_DB),
                         "set 'ha', 'server_list' and 'master' with \"quorsyncctl store put\"");
    } else {
        config_readable = check_file(CONFIG_DB, findings);
    }
    if (config_readable) {
        check_records(CONFIG_DB, "settings", findings);
    }
    if (access(CLIENT_DB, F_OK) == 0 && check_file(CLIENT_DB, findings)) {
        check_records(CLIENT_DB, "clients", findings);
    }
    if (access(DISK_DB, F_OK) == 0) {
        (void)check_file(DISK_DB, findings);
    }
    for (const std::string& name : names_in_store_directory()) {
        const std::string path = fmt::format("{}/{}", STORE_DIRECTORY, name);
        if (!peer_of_copy(name).empty()) {
            (void)check_file(path, findings);
        } else if (path == PREVIOUS_CLIENT_DB) {
            check_previous_clients(path, name, findings);
        } else if (path == BEFORE_SHRINK_CLIENT_DB) {
            check_before_shrink(path, name, findings);
        } else {
            check_leftover(path, name, findings);
        }
    }
    return config_readable;
}
