// A change of a store by the operator: what is checked before, and what is said and done after it.
#pragma once

#include <set>
#include <string>

#include "ctl/store_files.h"
#include "store.h"

struct StoreOptions {
    std::string file = "config";
    std::string key;
    std::string value;     // or the item of a list
    std::string set;       // of bump: config, client or dsver
    std::string place;     // of load, backup and restore: a file or a directory
    std::string restored;  // of restore: as `file`; empty for the one the copy is named after
    bool json = false;
    bool json_lines = false;
    bool force = false;
    bool bump = false;        // the stamp of the set that the change belongs to
    bool keep_dsver = false;  // although a slave's own setting changes
    int wait = 0;             // seconds in which a slave has to take the stamp; 0: nobody waits

    std::string path() const { return store_path(file); }
};

// Complains that there is no such record, or file; the exit code.
int absent(const StoreOptions& options);

// How the record gets to this host's peer, or from it.
Replication pair_replication(const StoreOptions& options);

// Throw what the operator did wrong: by the record with that value, by a file of that
// path, and by changing the record on this host.
void check_change(const StoreOptions& options, const std::string& value);
void check_path(const std::string& path);
void check_place(const StoreOptions& options);

// The latter's part on a slave, which gets the mirrored records from its master.
void check_host(const StoreOptions& options);

// Throws where a new stamp of the clients that comes with the change, by the key itself or by
// --bump, would make the slave replace its clients by nothing, or by few. The change puts these
// keys and deletes those.
using Keys = std::set<std::string>;
void check_clients(const StoreOptions& options, const Keys& put, const Keys& deleted);

// The last words on a change that has succeeded: a line for the log, which names `what` was done to
// which `subject`, and hints for the operator.
void report_change(const StoreOptions& options, const char* what, const std::string& subject);

// Complains that the file cannot be changed; the exit code.
int failed(const StoreOptions& options, const std::string& reason);

// Puts another stamp under `key` of config.db, in one opening, so that no two come to the same.
struct RaisedStamp {
    int error;  // 0 or the library's error code
    std::string before;
    std::string stamp;
};
RaisedStamp raise_stamp(const char* key);

// Waits for the slave where the operator wants it; the exit code.
int wait_for_stamp(const StoreOptions& options, const char* key, const std::string& stamp);

// Raises the stamp that has to follow a change of the record, after the change: a stamp that came
// first could be fetched with the old record. The exit code.
int follow_with_stamp(const StoreOptions& options);

// Closes the file after a change whose result is known, and does all of the above; the exit code.
int finish(const StoreOptions& options, Store& store, int result, const char* what);
