// quorsyncctl status: this host of the pair at a glance.
#include <fmt/format.h>
#include <sys/stat.h>

#include <ctime>
#include <map>
#include <memory>
#include <optional>

#include "configured_role.h"
#include "console.h"
#include "history/timeline.h"
#include "keys.h"
#include "log.h"
#include "owned.h"
#include "proc_info.h"
#include "role.h"
#include "rows.h"
#include "services.h"
#include "store.h"
#include "store_files.h"
#include "verbs.h"

namespace {

constexpr const char* NOTES = R"(
Roles, daemon, stamps, heartbeats, take-overs and whether the pair is in sync, as far as this host
can tell: from its files, its processes and the logs of today and yesterday. Exit code 1 when the
daemon does not run, has no role or was asked to end, when two run, when this host has taken over,
or when it is not in sync.

Examples:
  quorsyncctl status
  quorsyncctl status --json)";

struct Options {
    std::string directory = LOG_DIRECTORY;
    bool json = false;
};

struct PeerCopy {
    std::string address;
    std::optional<std::string> dsver;
    long age;  // seconds since it was put in place
};

struct Status {
    std::string config_failure;  // why config.db cannot be read; empty when it can
    ConfiguredRole configured;
    std::vector<ProcessInfo> daemons;
    std::vector<ProcessInfo> services;
    std::map<std::string, std::string> settings;  // those that are there
    std::vector<PeerCopy> copies;
    History log;
    std::string role;  // by the log
    SyncVerdict sync{};
};

LogTime log_time_of(std::time_t time) {
    return log_time_now() - std::chrono::seconds(std::time(nullptr) - time);
}

std::vector<PeerCopy> peer_copies() {
    std::vector<PeerCopy> copies;
    for (const std::string& name : names_in_store_directory()) {
        const std::string path = fmt::format("{}/{}", STORE_DIRECTORY, name);
        const std::string address = peer_of_copy(name);
        struct stat file {};
        if (address.empty() || stat(path.c_str(), &file) != 0) {
            continue;
        }
        const OwnedText dsver(db_get(path.c_str(), KEY_DSVER));
        copies.push_back({address, dsver ? std::optional<std::string>(dsver.get()) : std::nullopt,
                          static_cast<long>(std::time(nullptr) - file.st_mtime)});
    }
    return copies;
}

void read_settings(Status& status) {
    const std::unique_ptr<Store> store = db_open(CONFIG_DB);
    status.config_failure = open_failure(store);
    if (!status.config_failure.empty()) {
        return;
    }
    for (const char* key : {KEY_DHCP, KEY_CONFIG_VERSION, KEY_CLIENT_VERSION, KEY_DSVER}) {
        std::string value;
        if (store->get(key, value) == 0) {
            status.settings[key] = value;
        }
    }
}

std::string role_by_log(const LogState& state) {
    if (!state.waiting.empty()) {
        return "none: waits, " + state.waiting;
    }
    if (state.stop) {
        return fmt::format("none: stopped its work on request at {}; kill -9 ends the process",
                           format_log_time(*state.stop));
    }
    if (state.acting) {
        return "acting master since " + (state.take_over ? format_log_time(*state.take_over)
                                                         : std::string("before the log"));
    }
    if (state.role.empty()) {
        return "unknown: the logs of two days name none";
    }
    return state.role +
           (state.start ? " since " + format_log_time(*state.start) : " since before the log");
}

SyncVerdict verdict_of(const Status& status) {
    if (status.daemons.empty()) {
        return {InSync::CANNOT_TELL, "the daemon does not run"};
    }
    if (!status.log.failure.empty()) {
        return {InSync::CANNOT_TELL, status.log.failure};
    }
    return judge_sync(status.log.timeline.state(), log_time_now());
}

Status gather(const Options& options) {
    Status status;
    read_settings(status);
    status.configured = own_configured_role();
    if (!status.config_failure.empty()) {
        status.configured.text = fmt::format("cannot tell: {} cannot be read", CONFIG_DB);
    }
    status.daemons = processes_named(PROGRAM_NAME);
    for (const char* name : {WRAPPER_PROCESS, BOOT_LOADER_PROCESS}) {
        const auto found = processes_named(name);
        status.services.insert(status.services.end(), found.begin(), found.end());
    }
    status.copies = peer_copies();
    status.log = read_history(options.directory, parse_since("yesterday", log_time_now()));
    (void)status.log.timeline.finish();
    status.role = (status.daemons.empty() ? "ended; before: " : "") +
                  role_by_log(status.log.timeline.state());
    status.sync = verdict_of(status);
    return status;
}

int exit_code_of(const Status& status) {
    const LogState& state = status.log.timeline.state();
    if (!status.config_failure.empty()) {
        return EXIT_CANNOT_TELL;
    }
    const bool no_role = status.configured.decision.reason != RoleReason::DECIDED;
    if (status.daemons.size() != 1 || no_role || state.stop || state.acting ||
        status.sync.verdict == InSync::NO) {
        return EXIT_PROBLEM;
    }
    return status.sync.verdict == InSync::YES ? EXIT_FINE : EXIT_CANNOT_TELL;
}

// --- What is shown -----------------------------------------------------------------------------

std::string ago(std::optional<LogTime> time) {
    if (!time) {
        return "none in the logs of today and yesterday";
    }
    const auto seconds = static_cast<long>((log_time_now() - *time).count());
    return fmt::format("{}, {} ago", format_log_time(*time), age_text(seconds));
}

Json json_time(std::optional<LogTime> time) {
    return time ? Json(format_log_time(*time)) : Json();
}

std::string processes_text(const std::vector<ProcessInfo>& processes) {
    std::string text;
    for (const ProcessInfo& process : processes) {
        text += fmt::format("{}{} since {}", text.empty() ? "" : ", ", describe(process),
                            format_log_time(log_time_of(process.since)));
    }
    return text.empty() ? "none runs" : text;
}

Json json_of(const std::vector<ProcessInfo>& processes) {
    return json_list(processes, [](const ProcessInfo& process) {
        return Json::object({{"name", process.name},
                             {"pid", process.pid},
                             {"since", json_time(log_time_of(process.since))}});
    });
}

std::string setting(const Status& status, const char* key) {
    const auto found = status.settings.find(key);
    return found != status.settings.end()  ? escape(found->second)
           : status.config_failure.empty() ? "absent"
                                           : "unreadable";
}

Json json_of_settings(const Status& status) {
    Json settings = Json::object();
    for (const auto& [key, value] : status.settings) {
        settings.add({key, value});
    }
    return settings;
}

Json json_of_log(const Status& status) {
    const LogState& state = status.log.timeline.state();
    return Json::object(
        {{"role", state.stop     ? "none"
                  : state.acting ? "acting master"
                                 : state.role},
         {"text", status.role},
         {"start", json_time(state.start)},
         {"stop", json_time(state.stop)},
         {"heartbeat", json_time(state.role == "master" ? state.beat_back : state.beat)},
         {"answer", json_time(state.answer)},
         {"take_over", json_time(state.take_over)},
         {"step_down", json_time(state.step_down)},
         {"last_data_set", json_time(state.last_transfer)}});
}

void add_configured_role(const ConfiguredRole& configured, Rows& rows) {
    const int role = configured.decision.role;
    const Colour colour = role == 0 ? Colour::RED : Colour::PLAIN;
    rows.push_back({{{"forecast"}, {escape(configured.text), colour}},
                    {{"forecast", Json::object({{"role", role == ROLE_MASTER  ? "master"
                                                         : role == ROLE_SLAVE ? "slave"
                                                                              : "none"},
                                                {"text", configured.text}})}}});
}

void add_host(const Status& status, Rows& rows) {
    const std::string& addresses = status.configured.addresses;
    const LogState& state = status.log.timeline.state();
    rows.push_back(
        {{{"addresses"}, {addresses.empty() ? "none" : addresses}}, {{"addresses", addresses}}});
    add_configured_role(status.configured, rows);
    rows.push_back({{{"daemon"},
                     {processes_text(status.daemons),
                      status.daemons.size() == 1 ? Colour::PLAIN : Colour::RED}},
                    {{"daemon", json_of(status.daemons)}}});
    rows.push_back(
        {{{"role by log"},
          {escape(status.role), state.acting || state.stop ? Colour::YELLOW : Colour::PLAIN}},
         {}});
    rows.push_back({{{"boot services"},
                     {fmt::format("{}; marker 'dhcp' {}", processes_text(status.services),
                                  setting(status, KEY_DHCP))}},
                    {{"boot_services", json_of(status.services)}}});
    rows.push_back(
        {{{"stamps"},
          {fmt::format("config {}, client {}, dsver {}", setting(status, KEY_CONFIG_VERSION),
                       setting(status, KEY_CLIENT_VERSION), setting(status, KEY_DSVER))}},
         {{"settings", json_of_settings(status)}}});
}

void add_log(const Status& status, Rows& rows) {
    const LogState& state = status.log.timeline.state();
    const auto add = [&rows](const char* label, const std::string& text) {
        rows.push_back({{{label}, {text}}, {}});
    };
    if (state.role == "master") {
        add("last heartbeat",
            state.beat_back ? fmt::format("of {}: {}", state.beat_back_to, ago(state.beat_back))
                            : ago({}));
    } else {
        add("last heartbeat", ago(state.beat));
        add("last answer", ago(state.answer));
        add("last take-over", ago(state.take_over));
        add("last step-down", ago(state.step_down));
    }
    rows.push_back(
        {{{"last data set"}, {ago(state.last_transfer)}}, {{"log", json_of_log(status)}}});
}

void add_copies(const std::vector<PeerCopy>& copies, Rows& rows) {
    for (const PeerCopy& copy : copies) {
        rows.push_back({{{"copy of " + copy.address},
                         {fmt::format("dsver {}, {} old", escape(copy.dsver.value_or("absent")),
                                      age_text(copy.age))}},
                        {}});
    }
}

void add_sync(const Status& status, Rows& rows) {
    struct Style {
        const char* word;
        Colour colour;
    };
    const InSync verdict = status.sync.verdict;
    const Style style = verdict == InSync::YES  ? Style{"yes", Colour::GREEN}
                        : verdict == InSync::NO ? Style{"no", Colour::RED}
                                                : Style{"cannot tell", Colour::YELLOW};
    const Json copies = json_list(status.copies, [](const PeerCopy& copy) {
        return Json::object({{"address", copy.address}, {"dsver", copy.dsver}, {"age", copy.age}});
    });
    rows.push_back(
        {{{"in sync"}, {fmt::format("{}: {}", style.word, status.sync.reason), style.colour}},
         {{"copies", copies},
          {"in_sync", Json::object({{"verdict", style.word}, {"reason", status.sync.reason}})}}});
}

Rows rows_of(const Status& status) {
    Rows rows;
    add_host(status, rows);
    add_log(status, rows);
    add_copies(status.copies, rows);
    add_sync(status, rows);
    return rows;
}

int show_status(const Options& options) {
    const Status status = gather(options);
    if (!status.config_failure.empty()) {
        complain("{}; \"quorsyncctl check\" tells what helps", status.config_failure);
    }
    if (!status.log.failure.empty()) {
        complain("{}", status.log.failure);
    }
    const Rows rows = rows_of(status);
    if (options.json) {
        object_of(rows).print();
    } else {
        print_table(rows);
    }
    return exit_code_of(status);
}

}  // namespace

void add_status(const Command& tool) {
    const auto options = std::make_shared<Options>();
    tool.command("status", "Show this host of the pair at a glance.")
        .notes(NOTES)
        .option("--dir", options->directory, "Where the daily logs are")
        .flag("--json", options->json, "Print machine-readable output")
        .runs([options] { return show_status(*options); });
}
