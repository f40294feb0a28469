// What the operator does with all records of a store at once. Each returns the exit code.
#pragma once

#include "change.h"

// Stores the records of the JSON lines in the file `options.place` ("-": standard input), replacing
// those of the same keys: all of them or, after a complaint, none.
int load(const StoreOptions& options);

// Copies every store of this host, consistent and verified, into the directory `options.place`.
int backup(const StoreOptions& options);

// Puts a copy of the file `options.place` in the place of the store.
int restore(const StoreOptions& options);
