// quorsyncctl, the operator's tool: `quorsyncctl VERB ...`. One file per verb.
//
// A verb's function adds its subcommand to `app`, with help, options and an example. When the
// operator has chosen it, its callback runs and leaves one of the exit codes in `status`. A verb
// may throw CLI::ValidationError for wrong use, before it has changed anything.
#pragma once

#include <CLI/CLI.hpp>

// Exit codes of every verb.
inline constexpr int EXIT_FINE = 0;
inline constexpr int EXIT_PROBLEM = 1;      // a problem was found, or a change did not succeed
inline constexpr int EXIT_WRONG_USE = 2;    // arguments; nothing was done
inline constexpr int EXIT_CANNOT_TELL = 3;  // what has to be read could not be

// The tool's entry: reads the command line and runs the chosen verb. Returns the exit code.
int run_ctl(int argc, char** argv);

void add_check(CLI::App& app, int& status);
void add_status(CLI::App& app, int& status);
void add_timeline(CLI::App& app, int& status);
void add_store(CLI::App& app, int& status);
void add_diff(CLI::App& app, int& status);
void add_fetch(CLI::App& app, int& status);
void add_dhcpd_conf(CLI::App& app, int& status);
void add_service(CLI::App& app, int& status);

// A subcommand of `parent` whose help ends with `notes`, less a newline before them, and the exit
// codes.
CLI::App* add_verb(CLI::App& parent, const char* name, const char* summary, const char* notes);
