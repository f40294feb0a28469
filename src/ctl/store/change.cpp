#include "change.h"

#include <db.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <memory>
#include <string_view>

#include "ctl/audit.h"
#include "ctl/client_count.h"
#include "ctl/configured_role.h"
#include "ctl/console.h"
#include "ctl/proc_info.h"
#include "ctl/setting_rules.h"
#include "ctl/verbs.h"
#include "data_sets.h"
#include "keys.h"
#include "log.h"
#include "stamps.h"
#include "wait.h"

namespace {

// Throws what the daemon could not use; --force stores it all the same.
void check_text(const StoreOptions& options, const std::string& value) {
    if (options.force) {
        return;
    }
    std::string fault = control_fault(options.key);
    fault = fault.empty() ? control_fault(value) : fault;
    if (fault.empty() && options.path() == CONFIG_DB) {
        fault = setting_fault(options.key, value);
    }
    if (!fault.empty()) {
        throw WrongUse(options.key, fmt::format("{}; --force stores it anyway", fault));
    }
}

// What the operator may want to know of a change. On standard error: standard output is for data.
void print_hints(const StoreOptions& options) {
    const bool settings = options.path() == CONFIG_DB;
    if (pair_replication(options) == Replication::PUSHED && !options.bump) {
        complain("\"quorsyncctl store bump {}\" makes the slave fetch it",
                 (settings ? CONFIG_SET : CLIENT_SET).name);
    }
    if (!settings) {
        return;
    }
    if (const auto meant = similar_setting(options.key); !meant.empty()) {
        complain("the daemon does not read \"{}\"; did you mean \"{}\"?", escape(options.key),
                 meant);
    }
    if (needs_restart(options.key) && !processes_named(PROGRAM_NAME).empty()) {
        complain("\"{}\" takes effect when the daemon is restarted", options.key);
    }
}

// The stamp in config.db that has to follow a change of the record; null for none. A slave's own
// settings go to its master, which looks at their stamp.
const char* stamp_of_change(const StoreOptions& options) {
    const Replication replication = pair_replication(options);
    if (options.bump && replication == Replication::PUSHED) {
        return (options.path() == CLIENT_DB ? CLIENT_SET : CONFIG_SET).stamp_key;
    }
    const bool own = options.path() == CONFIG_DB && replication != Replication::STAMP &&
                     replication != Replication::DSVER;
    return own && !options.keep_dsver && is_configured_slave() ? KEY_DSVER : nullptr;
}

// How many of the keys client.db has.
std::size_t count_present(const Keys& keys) {
    const std::unique_ptr<Store> store = keys.empty() ? nullptr : db_open_present(CLIENT_DB);
    std::string value;
    const auto is_present = [&](const std::string& key) {
        return store && store->get(key, value, 1) == 0;
    };
    return static_cast<std::size_t>(std::count_if(keys.begin(), keys.end(), is_present));
}

}  // namespace

Replication pair_replication(const StoreOptions& options) {
    const std::string path = options.path();
    return path == CLIENT_DB || path == CONFIG_DB ? replication_of(path == CLIENT_DB, options.key)
                                                  : Replication::NONE;
}

int absent(const StoreOptions& options) {
    if (access(options.path().c_str(), F_OK) != 0) {
        complain_about_file(options.path(), {});
        return EXIT_PROBLEM;
    }
    complain("{} has no key \"{}\"; \"quorsyncctl store dump --file {}\" shows what it has",
             options.path(), escape(options.key), options.file);
    return EXIT_PROBLEM;
}

void check_path(const std::string& path) {
    if (path.find('/') == std::string::npos && access(path.c_str(), F_OK) != 0) {
        throw WrongUse(
            "--file", fmt::format("\"{}\" is neither config, client or disk nor a file here; a new "
                                  "one needs its full path",
                                  path));
    }
}

void check_change(const StoreOptions& options, const std::string& value) {
    const std::string path = options.path();
    const std::string misfit =
        message_fault(replication_of(holds_clients(path), options.key), options.key, value);
    if (options.key.empty()) {
        throw WrongUse("KEY", "is empty");
    }
    check_path(path);
    if (!misfit.empty()) {
        throw WrongUse(options.key, misfit);
    }
    check_text(options, value);
}

void check_place(const StoreOptions& options) {
    if (options.bump && pair_replication(options) != Replication::PUSHED) {
        throw WrongUse("--bump", "the record is in no set that the slave fetches");
    }
    const bool new_stamp =
        options.bump || (!options.set.empty() && pair_replication(options) == Replication::STAMP);
    if (options.wait > 0 && !new_stamp) {
        throw WrongUse("--wait",
                       "wants a new stamp of config or client: --bump or \"store bump\" makes one");
    }
    if (options.wait > 0 && !serves_as_master()) {
        throw WrongUse("--wait", "the daemon of this host does not run as master");
    }
    check_host(options);
}

void check_host(const StoreOptions& options) {
    if (!options.force && is_mirrored(pair_replication(options)) && is_configured_slave()) {
        throw WrongUse(options.key,
                       "this host is the slave: change it on the master, which overwrites it here; "
                       "--force changes it anyway");
    }
}

void check_clients(const StoreOptions& options, const Keys& put, const Keys& deleted) {
    const bool changes_list = options.path() == CLIENT_DB;
    const bool raises_stamp =
        changes_list ? options.bump
                     : options.path() == CONFIG_DB && options.key == CLIENT_SET.stamp_key;
    auto count = raises_stamp && !options.force ? client_count() : std::nullopt;
    if (!count) {
        return;
    }
    if (changes_list) {
        *count += put.size() - count_present(put) - count_present(deleted);
    }
    if (const std::string fault = client_list_fault(count); !fault.empty()) {
        throw WrongUse(CLIENT_DB,
                       fmt::format("{}{}: the slave would drop its clients; restore the list first "
                                   "(\"quorsyncctl store restore\"), then give it a new stamp; "
                                   "--force stamps the list as it is",
                                   changes_list ? "with this change it " : "", fault));
    }
}

void report_change(const StoreOptions& options, const char* what, const std::string& subject) {
    log_change(fmt::format("{} {} in {}", what, subject, options.path()), options.value);
    print_hints(options);
}

int failed(const StoreOptions& options, const std::string& reason) {
    complain("{}: \"{}\" cannot be changed: {}", options.path(), escape(options.key), reason);
    return EXIT_PROBLEM;
}

RaisedStamp raise_stamp(const char* key) {
    const std::unique_ptr<Store> store = open_store(CONFIG_DB);
    if (!store) {
        return {EINVAL, {}, {}};
    }
    RaisedStamp raised{};
    (void)store->get(key, raised.before);
    char now[20];
    raised.stamp = next_stamp(raised.before, format_timestamp(now, sizeof now));
    int result = store->put(key, raised.stamp);
    if (result == 0 && key == std::string_view(CLIENT_SET.stamp_key)) {
        result = note_client_count(*store, raised.stamp);
    }
    const int closed = store->close();
    raised.error = result != 0 ? result : closed;
    return raised;
}

int wait_for_stamp(const StoreOptions& options, const char* key, const std::string& stamp) {
    const auto* set = std::find_if(DATA_SETS.begin(), DATA_SETS.end(), [key](const DataSet& each) {
        return std::string_view(key) == each.stamp_key;
    });
    return options.wait == 0 || set == DATA_SETS.end()
               ? EXIT_FINE
               : wait_for_slave(*set, stamp, std::chrono::seconds(options.wait));
}

int follow_with_stamp(const StoreOptions& options) {
    const char* key = stamp_of_change(options);
    if (key == nullptr) {
        return EXIT_FINE;
    }
    const RaisedStamp raised = raise_stamp(key);
    if (raised.error != 0) {
        complain("{}: \"{}\" is changed, but \"{}\" is not: {}", options.path(),
                 escape(options.key), key, store_error_text(raised.error));
        return EXIT_PROBLEM;
    }
    return wait_for_stamp(options, key, raised.stamp);
}

int finish(const StoreOptions& options, Store& store, int result, const char* what) {
    const int closed = store.close();
    const int error = result != 0 ? result : closed;
    if (error != 0) {
        return failed(options, store_error_text(error));
    }
    report_change(options, what, escape(options.key));
    return follow_with_stamp(options);
}
