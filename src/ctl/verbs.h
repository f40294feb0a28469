// quorsyncctl, the operator's tool: `quorsyncctl VERB ...`. One file per verb.
//
// A verb's function adds its command to `tool`, with help, options and an example. When the
// operator has chosen it, its function runs and returns one of the exit codes. It may throw
// WrongUse before it has changed anything. Only verbs.cpp includes the command line's library,
// which takes most of a source's time to compile.
#pragma once

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

// Exit codes of every verb.
inline constexpr int EXIT_FINE = 0;
inline constexpr int EXIT_PROBLEM = 1;      // a problem was found, or a change did not succeed
inline constexpr int EXIT_WRONG_USE = 2;    // arguments; nothing was done
inline constexpr int EXIT_CANNOT_TELL = 3;  // what has to be read could not be

// Wrong use of the argument or option `name`, in the verb's own words.
struct WrongUse : std::runtime_error {
    WrongUse(const std::string& name, const std::string& fault)
        : std::runtime_error(name + ": " + fault) {}
};

namespace CLI {
class App;
}

// A command as it is described to the reader of the command line. The values that arguments,
// options and flags fill must last until run_ctl() returns.
class Command {
public:
    Command(CLI::App& app, int& status) : m_app(app), m_status(status) {}

    // A command below this one.
    Command command(const char* name, const char* summary) const;

    // Ends the help with `notes`, less a newline before them, and the exit codes.
    const Command& notes(const char* notes) const;

    // An argument that must be there; one of `choices` where there are any.
    const Command& argument(const char* name, std::string& value, const char* help,
                            const std::vector<std::string>& choices = {}) const;

    // One that may be left out.
    const Command& optional_argument(const char* name, std::string& value, const char* help) const;

    // An option with a value. `name` may tell the kind of its value, "-n,--last COUNT". The help
    // shows the value that `value` has now, unless it is empty.
    const Command& option(const char* name, std::string& value, const char* help,
                          const std::vector<std::string>& choices = {}) const;

    // An option with one or more values, each behind the option's name.
    const Command& options(const char* name, std::vector<std::string>& values,
                           const char* help) const;

    // An option with a positive number, which is `absent` where the option stands alone.
    const Command& number(const char* name, int& value, int absent, const char* help) const;

    const Command& flag(const char* name, bool& value, const char* help) const;

    // --peer [ADDRESS]: `value` becomes ADDRESS, or OTHER_SERVER (peer/peer_file.h) without one.
    const Command& peer_option(std::string& value, const char* help) const;

    // The command runs `function` and ends with the exit code that this returns. Without it, one of
    // the commands below this one is wanted.
    void runs(std::function<int()> function) const;

private:
    CLI::App& m_app;
    int& m_status;
};

// The tool's entry: reads the command line and runs the chosen verb. Returns the exit code.
int run_ctl(int argc, char** argv);

void add_check(const Command& tool);
void add_status(const Command& tool);
void add_timeline(const Command& tool);
void add_store(const Command& tool);
void add_diff(const Command& tool);
void add_fetch(const Command& tool);
void add_dhcpd_conf(const Command& tool);
void add_service(const Command& tool);
