#include "verbs.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <string>
#include <system_error>
#include <utility>

#include <CLI/CLI.hpp>

#include "console.h"
#include "log.h"
#include "peer/peer_file.h"
#include "session.h"

namespace {

constexpr std::array VERBS = {add_check, add_status, add_timeline,   add_store,
                              add_diff,  add_fetch,  add_dhcpd_conf, add_service};

constexpr const char* EXIT_CODES =
    "\n\nExit codes: 0 fine, 1 a problem was found, 2 wrong use, 3 cannot tell.";

// The verb, or the group of verbs, that the command line came to.
const CLI::App& chosen_verb(const CLI::App& app) {
    const auto chosen = app.get_subcommands();
    return chosen.empty() ? app : chosen_verb(*chosen.front());
}

// "quorsyncctl store"
std::string words_of(const CLI::App& verb) {
    return (verb.get_parent() == nullptr ? "" : words_of(*verb.get_parent()) + " ") +
           verb.get_name();
}

// What is wrong with a command line that came to `verb` and no further.
std::string fault_text(const CLI::App& verb, const CLI::ParseError& error) {
    std::string names;
    for (const CLI::App* known : verb.get_subcommands([](const CLI::App*) { return true; })) {
        names += (names.empty() ? "" : ", ") + known->get_name();
    }
    if (names.empty()) {
        return error.what();
    }
    const auto unknown = verb.remaining();
    return fmt::format("\"{}\" {}wants one of {}", words_of(verb),
                       unknown.empty() ? "" : fmt::format("has no \"{}\"; it ", unknown.front()),
                       names);
}

// Complains of a wrong command line.
void complain_about(const CLI::App& verb, const CLI::ParseError& error) {
    if (dynamic_cast<const CLI::ValidationError*>(&error) != nullptr) {
        complain("{}", escape(error.what()));  // names the option
        return;
    }
    complain("{}", escape(fault_text(verb, error)));
    complain("see \"{} --help\"", words_of(verb));
}

// Adds an option by its names, which the kind of its value may follow.
CLI::Option* add_to(CLI::App& app, std::string_view name, std::string& value, const char* help) {
    const std::size_t blank = std::min(name.find(' '), name.size());
    CLI::Option* option = app.add_option(std::string(name.substr(0, blank)), value, help);
    if (blank < name.size()) {
        option->type_name(std::string(name.substr(blank + 1)));
    }
    return option;
}

void limit(CLI::Option* option, const std::vector<std::string>& choices) {
    if (!choices.empty()) {
        option->check(CLI::IsMember(choices));
    }
}

}  // namespace

Command Command::command(const char* name, const char* summary) const {
    m_app.require_subcommand(1);
    return {*m_app.add_subcommand(name, summary), m_status};
}

const Command& Command::notes(const char* notes) const {
    m_app.footer(notes + (*notes == '\n' ? 1 : 0) + std::string(EXIT_CODES));
    return *this;
}

const Command& Command::argument(const char* name, std::string& value, const char* help,
                                 const std::vector<std::string>& choices) const {
    limit(m_app.add_option(name, value, help)->required(), choices);
    return *this;
}

const Command& Command::option(const char* name, std::string& value, const char* help,
                               const std::vector<std::string>& choices) const {
    limit(add_to(m_app, name, value, help)->capture_default_str(), choices);
    return *this;
}

const Command& Command::number(const char* name, int& value, int absent, const char* help) const {
    m_app.add_option(name, value, help)
        ->expected(0, 1)
        ->default_str(std::to_string(absent))
        ->check(CLI::PositiveNumber);
    return *this;
}

const Command& Command::options(const char* name, std::vector<std::string>& values,
                                const char* help) const {
    m_app.add_option(name, values, help)->capture_default_str()->allow_extra_args(false);
    return *this;
}

const Command& Command::flag(const char* name, bool& value, const char* help) const {
    m_app.add_flag(name, value, help);
    return *this;
}

const Command& Command::optional_argument(const char* name, std::string& value,
                                          const char* help) const {
    m_app.add_option(name, value, help);
    return *this;
}

const Command& Command::peer_option(std::string& value, const char* help) const {
    m_app.add_option("--peer", value, help)
        ->expected(0, 1)
        ->default_str(OTHER_SERVER)
        ->option_text("[ADDRESS]");
    return *this;
}

void Command::runs(std::function<int()> function) const {
    m_app.callback([function = std::move(function), &status = m_status] { status = function(); });
}

int run_ctl(int argc, char** argv) {
    CLI::App app("Inspect and manage one server of a quorsyncd pair.", "quorsyncctl");
    app.set_version_flag("--version", std::string("quorsyncctl ") + PROGRAM_VERSION);
    app.footer(std::string("\"quorsyncctl VERB --help\" has examples.") + EXIT_CODES);
    int status = EXIT_FINE;
    for (const auto add : VERBS) {
        add(Command(app, status));
    }
    begin_inspection();
    try {
        app.parse(argc, argv);
        if (std::fflush(stdout) != 0) {
            throw std::system_error(errno, std::generic_category(), "standard output");
        }
        return status;
    } catch (const CLI::Success& help) {
        return app.exit(help);
    } catch (const WrongUse& error) {
        complain("{}", escape(error.what()));
        return EXIT_WRONG_USE;
    } catch (const CLI::ParseError& error) {
        complain_about(chosen_verb(app), error);
        return EXIT_WRONG_USE;
    } catch (const std::exception& error) {
        complain("{}", error.what());
        return EXIT_CANNOT_TELL;
    }
}
