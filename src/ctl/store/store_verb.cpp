// quorsyncctl store: the configuration store in the daemon's own terms, under its lock.
#include <db.h>
#include <unistd.h>

#include <memory>
#include <optional>
#include <string>

#include "bulk.h"
#include "change.h"
#include "ctl/console.h"
#include "ctl/rows.h"
#include "ctl/session.h"
#include "ctl/store_files.h"
#include "ctl/verbs.h"
#include "data_sets.h"
#include "json_lines.h"
#include "keys.h"
#include "log.h"
#include "stamps.h"
#include "store.h"
#include "text.h"

namespace {

// Text for a pipe as it is, for a terminal without what could upset it.
std::string shown(const std::string& text) {
    return is_terminal(STDOUT_FILENO) ? escape(text) : text;
}

int get(const StoreOptions& options) {
    const std::unique_ptr<Store> store = open_store(options.path());
    std::string value;
    const int result = store ? store->get(options.key, value) : EINVAL;
    if (result == 0) {
        print_line(shown(value));
        return EXIT_FINE;
    }
    return store && result == DB_NOTFOUND ? absent(options) : EXIT_CANNOT_TELL;
}

int dump(const StoreOptions& options) {
    const auto records = read_records(options.path());
    if (!records) {
        return EXIT_CANNOT_TELL;
    }
    if (options.json_lines) {
        for (const auto& [key, value] : *records) {
            print_line(to_json_line({key, value}));
        }
        return EXIT_FINE;
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

int verify(const StoreOptions& options) {
    const std::unique_ptr<Store> store = db_open(options.path().c_str());
    if (store && store->damaged()) {
        complain(
            "{} is damaged; a slave fetches client.db from its master again; restore any other "
            "file from a backup",
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

int put(const StoreOptions& options) {
    check_change(options, options.value);
    check_place(options);
    check_clients(options, {options.key}, {});
    begin_changes();
    const std::unique_ptr<Store> store = open_store(options.path());
    if (!store) {
        return EXIT_PROBLEM;
    }
    return finish(options, *store, store->put(options.key, options.value), "put");
}

int del(const StoreOptions& options) {
    check_place(options);
    if (access(options.path().c_str(), F_OK) != 0) {
        return absent(options);  // a change would create the file
    }
    check_clients(options, {}, {options.key});
    begin_changes();
    const std::unique_ptr<Store> store = open_store(options.path());
    if (!store) {
        return EXIT_PROBLEM;
    }
    const int deleted = store->del(options.key);
    return deleted == DB_NOTFOUND ? absent(options) : finish(options, *store, deleted, "del");
}

void check_item(const StoreOptions& options) {
    if (options.value.empty() || options.value.find(',') != std::string::npos) {
        throw WrongUse("ITEM", "is empty or contains the separator \",\"");
    }
}

// The list as it is, empty where the key or the file is missing; nothing after a complaint.
std::optional<std::string> present_list(const StoreOptions& options) {
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

int change_list(const StoreOptions& options, ListChange change, const char* what) {
    begin_changes();
    const std::string failure =
        change(options.path().c_str(), options.key.c_str(), options.value.c_str());
    if (!failure.empty()) {
        return failed(options, failure);
    }
    report_change(options, what, escape(options.key));
    return follow_with_stamp(options);
}

int list_add(const StoreOptions& options) {
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
    check_clients(options, {options.key}, {});
    return change_list(options, add_list_item, "list-add");
}

int list_remove(const StoreOptions& options) {
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
    check_clients(options, {}, *list == options.value ? Keys{options.key} : Keys{});
    return change_list(options, remove_list_item, "list-remove");
}

int bump(const StoreOptions& options) {
    check_place(options);
    check_clients(options, {}, {});
    begin_changes();
    const RaisedStamp raised = raise_stamp(options.key.c_str());
    if (raised.error != 0) {
        return failed(options, store_error_text(raised.error));
    }
    report_change(options, "bump", options.key);
    say("{}: {} -> {}", options.key, raised.before.empty() ? "none" : escape(raised.before),
        raised.stamp);
    return wait_for_stamp(options, options.key.c_str(), raised.stamp);
}

// --- The command line ----------------------------------------------------------------------------

using Operation = int (*)(const StoreOptions&);
using SharedOptions = std::shared_ptr<StoreOptions>;

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
                   "Override a refusal: on a slave, an unusable value, an empty or shrunk list");
}

void add_wait(const Command& operation, const SharedOptions& options) {
    constexpr int MINUTE = 60;
    operation.number("--wait", options->wait, MINUTE,
                     "Wait until the slave has the new stamp, at most that many seconds");
}

// What a change of a record takes besides its key.
void add_change_flags(const Command& operation, const SharedOptions& options) {
    add_force(operation, options);
    operation.flag("--bump", options->bump, "Also give the data set a new stamp")
        .flag("--keep-dsver", options->keep_dsver, "Do not renew 'dsver' on a slave");
    add_wait(operation, options);
}

void add_readers(const Command& verb, const SharedOptions& options) {
    add_key(add_operation(verb, "get", "Print the value of a key.", get, options), options);
    add_operation(verb, "dump", "Print all records as key=value.", dump, options)
        .flag("--json", options->json, "Print one JSON object")
        .flag("--jsonl", options->json_lines, "Print JSON lines for \"store load\"");
    add_operation(verb, "verify", "Verify that the file is not damaged.", verify, options);
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
    add_with_value("list-add", "Add an item to a comma-separated list.", list_add, "ITEM",
                   "The item");
    add_with_value("list-remove", "Remove an item from a list.", list_remove, "ITEM", "The item");
}

void add_whole_files(const Command& verb, const SharedOptions& options) {
    const Command loading =
        add_operation(verb, "load", "Store records from JSON lines, all or none.", load, options);
    loading.argument("FILE", options->place,
                     "Lines of \"store dump --jsonl\"; - reads standard input");
    add_change_flags(loading, options);

    const Command saving = verb.command("backup", "Copy the stores of this host.");
    saving.argument("DIRECTORY", options->place, "Where the copies go; created if missing")
        .runs([options] { return backup(*options); });

    const Command restoring = verb.command("restore", "Replace a store with a copy.");
    restoring.argument("COPY", options->place, "A file of \"store backup\"")
        .option("-f,--file", options->restored,
                "config, client, disk or a path; default: the store that COPY is named after")
        .runs([options] { return restore(*options); });
    add_force(restoring, options);
}

void add_bump(const Command& verb, const SharedOptions& options) {
    const Command added = verb.command("bump", "Give a data set a new stamp: the slave fetches it.")
                              .argument("SET", options->set, "config, client or dsver",
                                        {"config", "client", "dsver"});
    add_force(added, options);
    add_wait(added, options);
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
    const auto options = std::make_shared<StoreOptions>();
    add_readers(verb, options);
    add_writers(verb, options);
    add_whole_files(verb, options);
    add_bump(verb, options);
}
