// quorsyncctl check: what must hold before the daemon can do its work.
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <memory>

#include "ctl/console.h"
#include "ctl/peer/peer_file.h"
#include "ctl/rows.h"
#include "ctl/verbs.h"
#include "findings.h"

namespace {

constexpr const char* NOTES = R"(
Prints one line for each requirement, with the reason and the remedy where it is not met. Nothing is
created, opened for writing or changed, and a running daemon is not disturbed. Warnings do not
change the exit code. With --peer, the config.db of the other server is fetched through its file
service and compared, too.

Examples:
  quorsyncctl check
  quorsyncctl check --warn    (for a unit: only what is wrong, exit code 0)
  quorsyncctl check --json
  quorsyncctl check --peer
  quorsyncctl check --peer 192.168.0.2)";

struct Options {
    bool warn = false;
    bool json = false;
    std::string peer;
};

struct MarkStyle {
    const char* word;
    const char* json;
    Colour colour;
};

MarkStyle style_of(Mark mark) {
    constexpr std::array<MarkStyle, 4> STYLES = {{{"ok", "ok", Colour::GREEN},
                                                  {"warning", "warning", Colour::YELLOW},
                                                  {"PROBLEM", "problem", Colour::RED},
                                                  {"unknown", "unknown", Colour::YELLOW}}};
    return STYLES[static_cast<std::size_t>(mark)];
}

// Text and remedy on one line.
std::string line_of(const Finding& finding) {
    return escape(finding.remedy.empty() ? finding.text
                                         : fmt::format("{}; {}", finding.text, finding.remedy));
}

Row row_of(const Finding& finding) {
    const MarkStyle style = style_of(finding.mark);
    return {{{style.word, style.colour}, {finding.name}, {line_of(finding)}},
            {{"name", finding.name},
             {"mark", style.json},
             {"text", finding.text},
             {"remedy", finding.remedy}}};
}

// For a unit: its journal shows the complaints, nothing else.
void print_complaints(const Findings& findings) {
    for (const Finding& finding : findings.all()) {
        if (finding.mark != Mark::GOOD) {
            complain("{}: {}: {}", style_of(finding.mark).word, finding.name, line_of(finding));
        }
    }
}

void print(const Findings& findings, const Options& options) {
    if (options.warn && !options.json) {
        print_complaints(findings);
        return;
    }
    Rows rows;
    std::transform(findings.all().begin(), findings.all().end(), std::back_inserter(rows), row_of);
    if (options.json) {
        Json::object({{"findings", list_of(rows)}}).print();
    } else {
        print_table(rows);
    }
}

int exit_code_of(const Findings& findings) {
    const auto any = [&findings](Mark mark) {
        return std::any_of(findings.all().begin(), findings.all().end(),
                           [mark](const Finding& finding) { return finding.mark == mark; });
    };
    return any(Mark::PROBLEM) ? EXIT_PROBLEM : any(Mark::UNKNOWN) ? EXIT_CANNOT_TELL : EXIT_FINE;
}

int check(const Options& options) {
    const std::string peer = options.peer.empty() ? "" : peer_address(options.peer);
    Findings findings;
    const bool has_settings = check_files(findings);
    if (has_settings) {
        check_settings(findings);
    }
    check_host(findings);
    check_services(findings);
    if (has_settings) {
        check_running(findings);
    }
    if (has_settings && !peer.empty()) {
        check_peer(peer, findings);
    }
    print(findings, options);
    return options.warn ? EXIT_FINE : exit_code_of(findings);
}

}  // namespace

void add_check(const Command& tool) {
    const auto options = std::make_shared<Options>();
    tool.command("check", "Check what the daemon needs on this host.")
        .notes(NOTES)
        .flag("--warn", options->warn, "Print only what is wrong, on standard error; exit with 0")
        .flag("--json", options->json, "Print machine-readable output")
        .peer_option(options->peer, "Compare with the settings of the other server, too")
        .runs([options] { return check(*options); });
}
