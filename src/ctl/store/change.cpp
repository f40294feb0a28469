#include "change.h"

#include <db.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "ctl/configured_role.h"
#include "ctl/console.h"
#include "ctl/proc_info.h"
#include "ctl/setting_rules.h"
#include "ctl/verbs.h"
#include "data_sets.h"
#include "keys.h"
#include "log.h"
#include "stamps.h"

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
        throw WrongUse(escape(options.key),
                       fmt::format("{}; --force stores it anyway", escape(fault)));
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

void check_change(const StoreOptions& options, const std::string& value) {
    const std::string path = options.path();
    const std::string misfit =
        message_fault(replication_of(holds_clients(path), options.key), options.key, value);
    if (options.key.empty()) {
        throw WrongUse("KEY", "is empty");
    }
    if (path.find('/') == std::string::npos && access(path.c_str(), F_OK) != 0) {
        throw WrongUse("--file", "\"" + path +
                                     "\" is neither config, client or disk nor a file "
                                     "here; a new one needs its full path");
    }
    if (!misfit.empty()) {
        throw WrongUse(options.key, misfit);
    }
    check_text(options, value);
}

void check_place(const StoreOptions& options) {
    if (options.bump && pair_replication(options) != Replication::PUSHED) {
        throw WrongUse("--bump", "the record is in no set that the slave fetches");
    }
    if (!options.force && is_mirrored(pair_replication(options)) && is_configured_slave()) {
        throw WrongUse(options.key,
                       "this host is the slave: change it on the master, which overwrites it here; "
                       "--force changes it anyway");
    }
}

void report_change(const StoreOptions& options, const char* what, const std::string& subject) {
    write_log(LOG_INFO, "quorsyncctl: %s %s in %s", what, subject.c_str(), options.path().c_str());
    print_hints(options);
}

int failed(const StoreOptions& options, const std::string& reason) {
    complain("{}: \"{}\" cannot be changed: {}", options.path(), escape(options.key), reason);
    return EXIT_PROBLEM;
}

int raise_stamp(Store& store, const char* key, std::string& before, std::string& stamp) {
    (void)store.get(key, before);
    char now[20];
    stamp = next_stamp(before, format_timestamp(now, sizeof now));
    return store.put(key, stamp);
}

int follow_with_stamp(const StoreOptions& options) {
    const char* key = stamp_of_change(options);
    if (key == nullptr) {
        return EXIT_FINE;
    }
    const std::unique_ptr<Store> store = open_store(CONFIG_DB);
    std::string before;
    std::string stamp;
    const int result = store ? raise_stamp(*store, key, before, stamp) : EINVAL;
    const int closed = store ? store->close() : 0;
    if (result == 0 && closed == 0) {
        return EXIT_FINE;
    }
    complain("{}: \"{}\" is changed, but \"{}\" is not: {}", options.path(), escape(options.key),
             key, store_error_text(result != 0 ? result : closed));
    return EXIT_PROBLEM;
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
