#include "verbs.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <string>
#include <system_error>

#include "console.h"
#include "log.h"
#include "session.h"

namespace {

constexpr std::array VERBS = {add_check, add_status, add_timeline,   add_store,
                              add_diff,  add_fetch,  add_dhcpd_conf, add_service};

constexpr const char* EXIT_CODES =
    "\nExit codes: 0 fine, 1 a problem was found, 2 wrong use, 3 cannot tell.";

// The part of the command line that named a verb: "quorsyncctl store".
std::string chosen_words(const CLI::App& app) {
    std::string words = app.get_name();
    const CLI::App* at = &app;
    while (!at->get_subcommands().empty()) {
        at = at->get_subcommands().front();
        words += " " + at->get_name();
    }
    return words;
}

}  // namespace

CLI::App* add_verb(CLI::App& parent, const char* name, const char* summary, const char* notes) {
    CLI::App* verb = parent.add_subcommand(name, summary);
    verb->footer(std::string(notes) + EXIT_CODES);
    return verb;
}

int run_ctl(int argc, char** argv) {
    CLI::App app("Looks after this host of a quorsyncd pair.", "quorsyncctl");
    app.set_version_flag("--version", std::string("quorsyncctl ") + PROGRAM_VERSION);
    app.require_subcommand(1);
    app.footer(std::string("\"quorsyncctl VERB --help\" has examples.") + EXIT_CODES);
    int status = EXIT_FINE;
    for (const auto add : VERBS) {
        add(app, status);
    }
    begin_looking();
    try {
        app.parse(argc, argv);
        if (std::fflush(stdout) != 0) {
            throw std::system_error(errno, std::generic_category(), "standard output");
        }
        return status;
    } catch (const CLI::Success& help) {
        return app.exit(help);
    } catch (const CLI::ParseError& error) {
        complain("{}", error.what());
        if (dynamic_cast<const CLI::ValidationError*>(&error) == nullptr) {
            complain("\"{} --help\" tells more", chosen_words(app));
        }
        return EXIT_WRONG_USE;
    } catch (const std::exception& error) {
        complain("{}", error.what());
        return EXIT_CANNOT_TELL;
    }
}
