// What `check` finds: one line for each thing that must hold, with the reason and the remedy.
#pragma once

#include <string>
#include <string_view>
#include <vector>

enum class Mark {
    GOOD,
    WARNING,  // worth knowing; the daemon works all the same
    PROBLEM,
    UNKNOWN,
};

struct Finding {
    std::string name;  // of what was looked at: a key, a file, a program
    Mark mark;
    std::string text;
    std::string remedy;  // empty when none is needed
};

class Findings {
public:
    void good(std::string_view name, std::string text) { add(name, Mark::GOOD, std::move(text)); }
    void warning(std::string_view name, std::string text, std::string remedy) {
        add(name, Mark::WARNING, std::move(text), std::move(remedy));
    }
    void problem(std::string_view name, std::string text, std::string remedy) {
        add(name, Mark::PROBLEM, std::move(text), std::move(remedy));
    }
    void unknown(std::string_view name, std::string text, std::string remedy) {
        add(name, Mark::UNKNOWN, std::move(text), std::move(remedy));
    }

    const std::vector<Finding>& all() const { return all_; }

private:
    void add(std::string_view name, Mark mark, std::string text, std::string remedy = {}) {
        all_.push_back({std::string(name), mark, std::move(text), std::move(remedy)});
    }
    std::vector<Finding> all_;
};

// The database files: that they verify, their format, what was left behind, and records that no
// message carries. Reads one file at a time, in pieces. False when config.db cannot be read: what
// rests on it cannot be told then.
bool check_files(Findings& findings);

// The pair's settings, the addresses of this host and the roles that follow from both.
void check_settings(Findings& findings);

// Whether the boot services run where clients are to be served, and nowhere else, and whether a
// master has its slave's settings; nothing where the daemon has no role.
void check_services(Findings& findings);

// Whether the running daemon still works by these settings; nothing where it has no role.
void check_running(Findings& findings);

// The other server at `address`: its settings beside these, and whether the pair's ports carry
// anything. Its file service is asked for config.db; nothing is sent to its daemon.
void check_peer(const std::string& address, Findings& findings);

// Programs, pipe, log directory, ports, semaphore and daemons of this host.
void check_host(Findings& findings);
