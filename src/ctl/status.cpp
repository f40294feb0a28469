// quorsyncctl status: this host of the pair at a glance.
#include <fmt/format.h>
#include <sys/stat.h>

#include <ctime>
#include <map>
#include <memory>
#include <optional>

#include "console.h"
#include "forecast.h"
#include "keys.h"
#include "local_addresses.h"
#include "log.h"
#include "log_story.h"
#include "owned.h"
#include "proc_info.h"
#include "process_state.h"
#include "session.h"
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
    bool config_readable = false;
    Forecast forecast;
    std::vector<ProcessInfo> daemons;
    std::vector<ProcessInfo> services;
    std::map<std::string, std::string> settings;  // those that are there
    std::vector<PeerCopy> copies;
    LogStory log;
    bool log_readable = false;
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

bool read_settings(Status& status) {
    const std::unique_ptr<Store> store = db_open(CONFIG_DB);
    if (!store || !store->usable()) {
        return false;
    }
    for (const char* key : {KEY_DHCP, KEY_CONFIG_VERSION, KEY_CLIENT_VERSION, KEY_DSVER}) {
        std::string value;
        if (store->get(key, value) == 0) {
            status.settings[key] = value;
        }
    }
    return true;
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
    if (!status.log_readable) {
        return {InSync::CANNOT_TELL, status.log.failure};
    }
    return judge_sync(status.log.timeline.state(), log_time_now());
}

Status gather(const Options& options) {
    Status status;
    status.config_readable = read_settings(status);
    status.forecast =
        forecast_role(read_pair_settings(), std::string(text_of(OwnedText(local_ip_list()))));
    if (!status.config_readable) {
        status.forecast.text = fmt::format("cannot tell: {} cannot be read", CONFIG_DB);
    }
    status.daemons = processes_named(PROGRAM_NAME);
    for (const char* name : {"quordhcpd", "stagd"}) {
        const auto found = processes_named(name);
        status.services.insert(status.services.end(), found.begin(), found.end());
    }
    status.copies = peer_copies();
    status.log_readable =
        read_logs(options.directory, parse_since("yesterday", log_time_now()), status.log);
    (void)status.log.timeline.finish();
    status.role = (status.daemons.empty() ? "ended; before: " : "") +
                  role_by_log(status.log.timeline.state());
    status.sync = verdict_of(status);
    return status;
}

int exit_code_of(const Status& status) {
    const LogState& state = status.log.timeline.state();
    if (!status.config_readable) {
        return EXIT_CANNOT_TELL;
    }
    const bool no_role = status.forecast.decision.reason != RoleReason::DECIDED;
    if (status.daemons.size() != 1 || no_role || state.stop || state.acting ||
        status.sync.verdict == InSync::NO) {
        return EXIT_PROBLEM;
    }
    return status.sync.verdict == InSync::YES ? EXIT_FINE : EXIT_CANNOT_TELL;
}

// --- For people --------------------------------------------------------------------------------

std::string ago(std::optional<LogTime> time) {
    if (!time) {
        return "none in the logs of today and yesterday";
    }
    const auto seconds = static_cast<long>((log_time_now() - *time).count());
    return fmt::format("{}, {} ago", format_log_time(*time), age_text(seconds));
}

std::string processes_text(const std::vector<ProcessInfo>& processes) {
    std::string text;
    for (const ProcessInfo& process : processes) {
        text += fmt::format("{}{} since {}", text.empty() ? "" : ", ", describe(process),
                            format_log_time(log_time_of(process.since)));
    }
    return text.empty() ? "none runs" : text;
}

const char* verdict_word(InSync verdict) {
    return verdict == InSync::YES ? "yes" : verdict == InSync::NO ? "no" : "cannot tell";
}

Colour verdict_colour(InSync verdict) {
    return verdict == InSync::YES  ? Colour::GREEN
           : verdict == InSync::NO ? Colour::RED
                                   : Colour::YELLOW;
}

std::string setting(const Status& status, const char* key) {
    const auto found = status.settings.find(key);
    return found != status.settings.end() ? escape(found->second)
           : status.config_readable       ? "absent"
                                          : "unreadable";
}

void add_beats(const LogState& state, Table& table) {
    if (state.role == "master") {
        table.add(
            {{"last heartbeat"},
             {state.beat_back ? fmt::format("of {}: {}", state.beat_back_to, ago(state.beat_back))
                              : ago({})}});
        return;
    }
    table.add({{"last heartbeat"}, {ago(state.beat)}});
    table.add({{"last answer"}, {ago(state.answer)}});
    table.add({{"last take-over"}, {ago(state.take_over)}});
    table.add({{"last step-down"}, {ago(state.step_down)}});
}

void print_status(const Status& status) {
    const LogState& state = status.log.timeline.state();
    const bool decided = status.forecast.decision.reason == RoleReason::DECIDED;
    const bool unusual = state.acting || state.stop;
    Table table;
    table.add(
        {{"addresses"}, {status.forecast.addresses.empty() ? "none" : status.forecast.addresses}});
    table.add(
        {{"forecast"}, {escape(status.forecast.text), decided ? Colour::PLAIN : Colour::RED}});
    table.add({{"daemon"},
               {processes_text(status.daemons),
                status.daemons.size() == 1 ? Colour::PLAIN : Colour::RED}});
    table.add({{"role by log"}, {escape(status.role), unusual ? Colour::YELLOW : Colour::PLAIN}});
    table.add({{"boot services"},
               {fmt::format("{}; marker 'dhcp' {}", processes_text(status.services),
                            setting(status, KEY_DHCP))}});
    table.add({{"stamps"},
               {fmt::format("config {}, client {}, dsver {}", setting(status, KEY_CONFIG_VERSION),
                            setting(status, KEY_CLIENT_VERSION), setting(status, KEY_DSVER))}});
    add_beats(state, table);
    table.add({{"last data set"}, {ago(state.last_transfer)}});
    for (const PeerCopy& copy : status.copies) {
        table.add({{"copy of " + copy.address},
                   {fmt::format("dsver {}, {} old", escape(copy.dsver.value_or("absent")),
                                age_text(copy.age))}});
    }
    table.add({{"in sync"},
               {fmt::format("{}: {}", verdict_word(status.sync.verdict), status.sync.reason),
                verdict_colour(status.sync.verdict)}});
    table.print();
}

// --- For programs ------------------------------------------------------------------------------

void put_time(json_object* object, const char* name, std::optional<LogTime> time) {
    json_object_object_add(object, name, time ? json_text(format_log_time(*time)) : nullptr);
}

json_object* json_of(const std::vector<ProcessInfo>& processes) {
    json_object* list = json_object_new_array();
    for (const ProcessInfo& process : processes) {
        json_object* entry = json_object_new_object();
        put_text(entry, "name", process.name);
        json_object_object_add(entry, "pid", json_object_new_int(process.pid));
        put_time(entry, "since", log_time_of(process.since));
        json_object_array_add(list, entry);
    }
    return list;
}

json_object* json_of(const std::vector<PeerCopy>& copies) {
    json_object* list = json_object_new_array();
    for (const PeerCopy& copy : copies) {
        json_object* entry = json_object_new_object();
        put_text(entry, "address", copy.address);
        json_object_object_add(entry, "dsver", copy.dsver ? json_text(*copy.dsver) : nullptr);
        json_object_object_add(entry, "age", json_object_new_int64(copy.age));
        json_object_array_add(list, entry);
    }
    return list;
}

json_object* json_of(const SyncVerdict& sync) {
    json_object* object = json_object_new_object();
    put_text(object, "verdict", verdict_word(sync.verdict));
    put_text(object, "reason", sync.reason);
    return object;
}

json_object* json_of_log(const LogState& state, const std::string& role) {
    json_object* object = json_object_new_object();
    put_text(object, "role", state.stop ? "none" : state.acting ? "acting master" : state.role);
    put_text(object, "text", role);
    put_time(object, "start", state.start);
    put_time(object, "stop", state.stop);
    put_time(object, "heartbeat", state.role == "master" ? state.beat_back : state.beat);
    put_time(object, "answer", state.answer);
    put_time(object, "take_over", state.take_over);
    put_time(object, "step_down", state.step_down);
    put_time(object, "last_data_set", state.last_transfer);
    return object;
}

void print_status_as_json(const Status& status) {
    const Json object(json_object_new_object());
    json_object* forecast = json_object_new_object();
    const int role = status.forecast.decision.role;
    put_text(forecast, "role",
             role == ROLE_MASTER  ? "master"
             : role == ROLE_SLAVE ? "slave"
                                  : "none");
    put_text(forecast, "text", status.forecast.text);
    put_text(object.get(), "addresses", status.forecast.addresses);
    json_object_object_add(object.get(), "forecast", forecast);
    json_object_object_add(object.get(), "daemon", json_of(status.daemons));
    json_object_object_add(object.get(), "boot_services", json_of(status.services));
    json_object* settings = json_object_new_object();
    for (const auto& [key, value] : status.settings) {
        put_text(settings, key.c_str(), value);
    }
    json_object_object_add(object.get(), "settings", settings);
    json_object_object_add(object.get(), "log",
                           json_of_log(status.log.timeline.state(), status.role));
    json_object_object_add(object.get(), "copies", json_of(status.copies));
    json_object_object_add(object.get(), "in_sync", json_of(status.sync));
    print_json(object);
}

int show_status(const Options& options) {
    const Status status = gather(options);
    if (!status.config_readable) {
        complain("{}; \"quorsyncctl check\" tells what helps", last_logged_error());
    }
    if (!status.log_readable) {
        complain("{}", status.log.failure);
    }
    if (options.json) {
        print_status_as_json(status);
    } else {
        print_status(status);
    }
    return exit_code_of(status);
}

}  // namespace

void add_status(CLI::App& app, int& status) {
    CLI::App* verb = add_verb(app, "status", "Show this host of the pair at a glance.", NOTES);
    const auto options = std::make_shared<Options>();
    verb->add_option("--dir", options->directory, "Where the daily logs are")
        ->capture_default_str();
    verb->add_flag("--json", options->json, "Print machine-readable output");
    verb->callback([options, &status] { status = show_status(*options); });
}
