// quorsyncctl store: the configuration store in the daemon's own terms, under its lock.
#include <db.h>
#include <unistd.h>

#include <memory>
#include <optional>
#include <string>

#include "configured_role.h"
#include "console.h"
#include "data_sets.h"
#include "keys.h"
#include "log.h"
#include "proc_info.h"
#include "rows.h"
#include "session.h"
#include "setting_rules.h"
#include "stamps.h"
#include "store.h"
#include "store_files.h"
#include "text.h"
#include "verbs.h"

namespace {

struct Options {
    std::string file = "config";
    std::string key;
    std::string value;  // or the item of a list
    std::string set;    // of bump: config or client
    bool json = false;
    bool force = false;
    bool bump = false;        // the stamp of the set that the change belongs to
    bool keep_dsver = false;  // although a slave's own setting changes

    std::string path() const { return store_path(file); }
};

// Text for a pipe as it is, for a terminal without what could upset it.
std::string shown(const std::string& text) {
    return isatty(STDOUT_FILENO) == 1 ? escape(text) : text;
}

int absent(const Options& options) {
    if (access(options.path().c_str(), F_OK) != 0) {
        complain_about_file(options.path(), {});
        return EXIT_PROBLEM;
    }
    complain("{} has no key \"{}\"; \"quorsyncctl store dump --file {}\" shows what it has",
             options.path(), escape(options.key), options.file);
    return EXIT_PROBLEM;
}

int get(const Options& options) {
    const std::unique_ptr<Store> store = open_store(options.path());
    std::string value;
    const int result = store ? store->get(options.key, value) : EINVAL;
    if (result == 0) {
        print_line(shown(value));
        return EXIT_FINE;
    }
    return store && result == DB_NOTFOUND ? absent(options) : EXIT_CANNOT_TELL;
}

int dump(const Options& options) {
    const auto records = read_records(options.path());
    if (!records) {
        return EXIT_CANNOT_TELL;
    }
    Json object = Json::object();
    for (const auto& [key, value] : *records) {
        if (options.json) {
            object.add({key, value});
        } else {
            say("{}={}", escape(key), escape(value));
        }
    }
    if (options.json) {
        object.print();
    }
    return EXIT_FINE;
}

int verify(const Options& options) {
    const std::unique_ptr<Store> store = db_open(options.path().c_str());
    if (store && store->damaged()) {
        complain(
            "{} is damaged; a slave's client.db comes again from its master, any other file "
            "from a backup",
            options.path());
        return EXIT_PROBLEM;
    }
    if (const std::string failure = open_failure(store); !failure.empty()) {
        complain_about_file(options.path(), failure);
        return EXIT_CANNOT_TELL;
    }
    say("{} is sound", options.path());
    return EXIT_FINE;
}

// How the record gets to this host's peer, or from it.
Replication pair_replication(const Options& options) {
    const std::string path = options.path();
    return path == CLIENT_DB || path == CONFIG_DB ? replication_of(path == CLIENT_DB, options.key)
                                                  : Replication::NONE;
}

// Throws what the daemon could not use; --force stores it all the same.
void check_text(const Options& options, const std::string& value) {
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
                       fmt::format("{}; --force stores it all the same", escape(fault)));
    }
}

// Throws what the operator did wrong.
void check_change(const Options& options, const std::string& value) {
    const std::string path = options.path();
    const std::string misfit =
        message_fault(replication_of(holds_clients(path), options.key), options.key, value);
    if (options.key.empty()) {
        throw WrongUse("KEY", "is empty");
    }
    if (path.find('/') == std::string::npos && access(path.c_str(), F_OK) != 0) {
        throw WrongUse("--file", "\"" + path +
                                     "\" is neither config, client or disk nor a file "
                                     "here; a new one wants its whole path");
    }
    if (!misfit.empty()) {
        throw WrongUse(options.key, misfit);
    }
    check_text(options, value);
}

void check_place(const Options& options) {
    if (options.bump && pair_replication(options) != Replication::PUSHED) {
        throw WrongUse("--bump", "the record is in no set that the slave fetches");
    }
    if (!options.force && is_mirrored(pair_replication(options)) && is_configured_slave()) {
        throw WrongUse(options.key,
                       "this host is the slave: change it on the master, which overwrites it here; "
                       "--force changes it all the same");
    }
}

// What the operator may want to know of a change. On standard error: standard output is for data.
void print_hints(const Options& options) {
    const bool settings = options.path() == CONFIG_DB;
    if (pair_replication(options) == Replication::PUSHED && !options.bump) {
        complain("\"quorsyncctl store bump {}\" makes the slave fetch it",
                 (settings ? CONFIG_SET : CLIENT_SET).name);
    }
    if (!settings) {
        return;
    }
    if (const auto meant = similar_setting(options.key); !meant.empty()) {
        complain("the daemon reads no \"{}\"; did you mean \"{}\"?", escape(options.key), meant);
    }
    if (needs_restart(options.key) && !processes_named(PROGRAM_NAME).empty()) {
        complain("\"{}\" takes effect when the daemon is restarted", options.key);
    }
}

// The last words on a change that has succeeded: a line for the log, a hint for the operator.
int changed(const Options& options, const char* what) {
    write_log(LOG_INFO, "quorsyncctl: %s %s in %s", what, escape(options.key).c_str(),
              options.path().c_str());
    print_hints(options);
    return EXIT_FINE;
}

int failed(const Options& options, const std::string& reason) {
    complain("{}: \"{}\" cannot be changed: {}", options.path(), escape(options.key), reason);
    return EXIT_PROBLEM;
}

// Puts another stamp under `key`. Reads and writes in one opening, so that no two come to the same.
int raise_stamp(Store& store, const char* key, std::string& before, std::string& stamp) {
    (void)store.get(key, before);
    char now[20];
    stamp = next_stamp(before, format_timestamp(now, sizeof now));
    return store.put(key, stamp);
}

// The stamp in config.db that has to follow a change of the record; null for none. A slave's own
// settings go to its master, which looks at their stamp.
const char* stamp_of_change(const Options& options) {
    const Replication replication = pair_replication(options);
    if (options.bump && replication == Replication::PUSHED) {
        return (options.path() == CLIENT_DB ? CLIENT_SET : CONFIG_SET).stamp_key;
    }
    const bool own = options.path() == CONFIG_DB && replication != Replication::STAMP &&
                     replication != Replication::DSVER;
    return own && !options.keep_dsver && is_configured_slave() ? KEY_DSVER : nullptr;
}

// After the change: a stamp that came first could be fetched with the old record.
int follow_with_stamp(const Options& options) {
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

// Closes the file after a change whose result is known; what is left to say.
int finish(const Options& options, Store& store, int result, const char* what) {
    const int closed = store.close();
    const int error = result != 0 ? result : closed;
    if (error != 0) {
        return failed(options, store_error_text(error));
    }
    (void)changed(options, what);
    return follow_with_stamp(options);
}

int put(const Options& options) {
    check_change(options, options.value);
    check_place(options);
    begin_changes();
    const std::unique_ptr<Store> store = open_store(options.path());
    if (!store) {
        return EXIT_PROBLEM;
    }
    return finish(options, *store, store->put(options.key, options.value), "put");
}

int del(const Options& options) {
    check_place(options);
    if (access(options.path().c_str(), F_OK) != 0) {
        return absent(options);  // a change would create the file
    }
    begin_changes();
    const std::unique_ptr<Store> store = open_store(options.path());
    if (!store) {
        return EXIT_PROBLEM;
    }
    const int deleted = store->del(options.key);
    return deleted == DB_NOTFOUND ? absent(options) : finish(options, *store, deleted, "del");
}

void check_item(const Options& options) {
    if (options.value.empty() || options.value.find(',') != std::string::npos) {
        throw WrongUse("ITEM", "is empty or holds the list's own \",\"");
    }
}

// The list as it is, empty where the key or the file is missing; nothing after a complaint.
std::optional<std::string> present_list(const Options& options) {
    if (access(options.path().c_str(), F_OK) != 0) {
        return "";
    }
    const std::unique_ptr<Store> store = open_store(options.path());
    std::string list;
    const int result = store ? store->get(options.key, list) : EINVAL;
    if (result != 0 && result != DB_NOTFOUND) {
        return std::nullopt;
    }
    return list.substr(0, list.find('\0'));
}

using ListChange = std::string (*)(const char* path, const char* key, const char* item);

int change_list(const Options& options, ListChange change, const char* what) {
    begin_changes();
    const std::string failure =
        change(options.path().c_str(), options.key.c_str(), options.value.c_str());
    if (!failure.empty()) {
        return failed(options, failure);
    }
    (void)changed(options, what);
    return follow_with_stamp(options);
}

int list_add(const Options& options) {
    check_item(options);
    const auto list = present_list(options);
    if (!list) {
        return EXIT_CANNOT_TELL;
    }
    if (list_has(*list, options.value)) {
        say("{}: already in the list", escape(options.value));
        return EXIT_FINE;
    }
    const std::string longer = list->empty() ? options.value : *list + "," + options.value;
    if (longer.size() > MAX_LIST) {
        throw WrongUse(options.key, fmt::format("a list ends at {} characters", MAX_LIST));
    }
    check_change(options, longer);
    check_place(options);
    return change_list(options, add_list_item, "list-add");
}

int list_remove(const Options& options) {
    check_item(options);
    const auto list = present_list(options);
    if (!list) {
        return EXIT_CANNOT_TELL;
    }
    if (!list_has(*list, options.value)) {
        complain("{}: \"{}\" is not in the list \"{}\", which \"quorsyncctl store get\" shows",
                 options.path(), escape(options.value), escape(options.key));
        return EXIT_PROBLEM;
    }
    check_place(options);
    return change_list(options, remove_list_item, "list-remove");
}

// Throws where the new stamp would make the slave replace its clients by nothing.
void check_clients(const Options& options) {
    if (options.force || options.key != CLIENT_SET.stamp_key) {
        return;
    }
    const std::unique_ptr<Store> clients = db_open_present(CLIENT_DB);
    std::string_view key;
    std::string_view value;
    if (!clients || (clients->usable() && !StoreCursor(*clients).next(key, value))) {
        throw WrongUse(CLIENT_DB, fmt::format("{}: the slave would drop its clients; --force bumps "
                                              "it all the same",
                                              clients ? "holds no record" : "is missing"));
    }
}

int bump(const Options& options) {
    check_place(options);
    check_clients(options);
    begin_changes();
    const std::unique_ptr<Store> store = open_store(options.path());
    if (!store) {
        return EXIT_PROBLEM;
    }
    std::string before;
    std::string stamp;
    const int result = raise_stamp(*store, options.key.c_str(), before, stamp);
    const int status = finish(options, *store, result, "bump");
    if (status == EXIT_FINE) {
        say("{}: {} -> {}", options.key, before.empty() ? "none" : escape(before), stamp);
    }
    return status;
}

// --- The command line ----------------------------------------------------------------------------

using Operation = int (*)(const Options&);
using SharedOptions = std::shared_ptr<Options>;

Command add_operation(const Command& verb, const char* name, const char* summary,
                      Operation operation, const SharedOptions& options) {
    const Command added = verb.command(name, summary)
                              .option("-f,--file", options->file, "config, client, disk or a path");
    added.runs([options, operation] { return operation(*options); });
    return added;
}

void add_key(const Command& operation, const SharedOptions& options) {
    operation.argument("KEY", options->key, "Key of the record");
}

void add_force(const Command& operation, const SharedOptions& options) {
    operation.flag("--force", options->force,
                   "Even on the slave, or what the daemon cannot use, or an empty list");
}

// What a change of a record takes besides its key.
void add_change_flags(const Command& operation, const SharedOptions& options) {
    add_force(operation, options);
    operation.flag("--bump", options->bump, "Then raise the set's stamp, too")
        .flag("--keep-dsver", options->keep_dsver, "Leave a slave's 'dsver' as it is");
}

void add_readers(const Command& verb, const SharedOptions& options) {
    add_key(add_operation(verb, "get", "Print the value of a key.", get, options), options);
    add_operation(verb, "dump", "Print all records as key=value.", dump, options)
        .flag("--json", options->json, "As a JSON object");
    add_operation(verb, "verify", "Examine whether the file is sound.", verify, options);
}

void add_writers(const Command& verb, const SharedOptions& options) {
    const auto add_with_value = [&](const char* name, const char* summary, Operation change,
                                    const char* value, const char* help) {
        const Command added = add_operation(verb, name, summary, change, options);
        add_key(added, options);
        added.argument(value, options->value, help);
        add_change_flags(added, options);
    };
    add_with_value("put", "Store a value.", put, "VALUE", "The new value");
    const Command del_verb = add_operation(verb, "del", "Delete a record.", del, options);
    add_key(del_verb, options);
    add_change_flags(del_verb, options);
    add_with_value("list-add", "Add an item to a comma list.", list_add, "ITEM", "The item");
    add_with_value("list-remove", "Take an item out of a comma list.", list_remove, "ITEM",
                   "The item");
}

void add_bump(const Command& verb, const SharedOptions& options) {
    const Command added = verb.command("bump", "Raise a version stamp: the slaves fetch the set.")
                              .argument("SET", options->set, "config, client or dsver",
                                        {"config", "client", "dsver"});
    add_force(added, options);
    added.runs([options] {
        const DataSet* set = data_set_named(options->set);
        options->key = set == nullptr ? KEY_DSVER : set->stamp_key;
        return bump(*options);
    });
}

}  // namespace

void add_store(const Command& tool) {
    const Command verb = tool.command("store", "Read and change the configuration store.")
                             .notes(
                                 "Examples:\n"
                                 "  quorsyncctl store get server_list\n"
                                 "  quorsyncctl store dump --file client --json\n"
                                 "  quorsyncctl store put default_writeback /srv/writeback\n"
                                 "  quorsyncctl store list-add server_list 192.168.0.2\n"
                                 "  quorsyncctl store bump config");
    const auto options = std::make_shared<Options>();
    add_readers(verb, options);
    add_writers(verb, options);
    add_bump(verb, options);
}
