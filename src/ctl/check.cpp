// quorsyncctl check: what must hold before the daemon can do its work.
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <memory>

#include "console.h"
#include "findings.h"
#include "verbs.h"

namespace {

constexpr const char* NOTES = R"(
One line for each thing that must hold, with the reason and the remedy. Nothing is created, opened
for writing or changed; a running daemon does not notice. Warnings do not count as problems.

Examples:
  quorsyncctl check
  quorsyncctl check --warn    (in a unit: exit code 0, problems only)
  quorsyncctl check --json)";

struct Options {
    bool warn = false;
    bool json = false;
};

struct Look {
    const char* word;
    const char* json;
    Colour colour;
};

Look look_of(Mark mark) {
    constexpr std::array<Look, 4> LOOKS = {{{"ok", "ok", Colour::GREEN},
                                            {"warning", "warning", Colour::YELLOW},
                                            {"PROBLEM", "problem", Colour::RED},
                                            {"unknown", "unknown", Colour::YELLOW}}};
    return LOOKS[static_cast<std::size_t>(mark)];
}

std::string text_of_finding(const Finding& finding) {
    return finding.remedy.empty() ? finding.text
                                  : fmt::format("{}; {}", finding.text, finding.remedy);
}

void print_table(const Findings& findings) {
    Table table;
    for (const Finding& finding : findings.all()) {
        const Look look = look_of(finding.mark);
        table.add({{look.word, look.colour}, {finding.name}, {escape(text_of_finding(finding))}});
    }
    table.print();
}

// For a unit: its journal shows the complaints, nothing else.
void print_complaints(const Findings& findings) {
    for (const Finding& finding : findings.all()) {
        if (finding.mark != Mark::GOOD) {
            complain("{}: {}: {}", look_of(finding.mark).word, finding.name,
                     escape(text_of_finding(finding)));
        }
    }
}

void print_findings_as_json(const Findings& findings) {
    const Json object(json_object_new_object());
    json_object* list = json_object_new_array();
    for (const Finding& finding : findings.all()) {
        json_object* entry = json_object_new_object();
        put_text(entry, "name", finding.name);
        put_text(entry, "mark", look_of(finding.mark).json);
        put_text(entry, "text", finding.text);
        put_text(entry, "remedy", finding.remedy);
        json_object_array_add(list, entry);
    }
    json_object_object_add(object.get(), "findings", list);
    print_json(object);
}

int exit_code_of(const Findings& findings) {
    const auto any = [&findings](Mark mark) {
        return std::any_of(findings.all().begin(), findings.all().end(),
                           [mark](const Finding& finding) { return finding.mark == mark; });
    };
    return any(Mark::PROBLEM) ? EXIT_PROBLEM : any(Mark::UNKNOWN) ? EXIT_CANNOT_TELL : EXIT_FINE;
}

int check(const Options& options) {
    Findings findings;
    if (check_files(findings)) {
        check_settings(findings);
    }
    check_host(findings);
    if (options.json) {
        print_findings_as_json(findings);
    } else if (options.warn) {
        print_complaints(findings);
    } else {
        print_table(findings);
    }
    return options.warn ? EXIT_FINE : exit_code_of(findings);
}

}  // namespace

void add_check(CLI::App& app, int& status) {
    CLI::App* verb = add_verb(app, "check",
                              "Check what the daemon needs on this host, and why it waits.", NOTES);
    const auto options = std::make_shared<Options>();
    verb->add_flag("--warn", options->warn,
                   "Only warn: print what is wrong on standard error, exit with 0");
    verb->add_flag("--json", options->json, "Print machine-readable output");
    verb->callback([options, &status] { status = check(*options); });
}
