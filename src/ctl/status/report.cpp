#include "ctl/status/report.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <cstring>
#include <ctime>
#include <string>

#include "ctl/console.h"
#include "ctl/moments.h"
#include "ctl/status/counters.h"
#include "ctl/verbs.h"
#include "keys.h"
#include "peer_message.h"
#include "role.h"

namespace {

using Seconds = std::chrono::seconds;
using Milliseconds = std::chrono::milliseconds;

// --- Pieces --------------------------------------------------------------------------------------

std::time_t whole_seconds(std::int64_t nanoseconds) {
    return nanoseconds / 1'000'000'000;
}

std::string wall_text(std::int64_t nanoseconds) {
    return moment_text(whole_seconds(nanoseconds));
}

long seconds_since(const PageTime& time, const HostFacts& facts) {
    return std::chrono::duration_cast<Seconds>(age_of(time, facts)).count();
}

std::string event_text(const PageTime& time, const HostFacts& facts) {
    return time.ever() ? fmt::format("{}, {} ago", wall_text(time.wall),
                                     age_text(seconds_since(time, facts)))
                       : "none since the start of the daemon";
}

Json json_event(const PageTime& time, const HostFacts& facts) {
    return time.ever() ? json_moment(whole_seconds(time.wall), seconds_since(time, facts)) : Json();
}

Json milliseconds(std::int64_t nanoseconds) {
    return std::chrono::duration_cast<Milliseconds>(std::chrono::nanoseconds(nanoseconds)).count();
}

std::string setting(const HostFacts& facts, const char* key) {
    const auto found = facts.settings.find(key);
    return found != facts.settings.end()  ? escape(found->second)
           : facts.config_failure.empty() ? "absent"
                                          : "unreadable";
}

Json json_of_settings(const HostFacts& facts) {
    Json settings = Json::object();
    for (const auto& [key, value] : facts.settings) {
        settings.add({key, value});
    }
    return settings;
}

std::string partner_text(const StatePage& page) {
    char text[INET_ADDRSTRLEN] = {};
    const in_addr address{static_cast<in_addr_t>(page.partner)};
    return inet_ntop(AF_INET, &address, text, sizeof text) != nullptr ? text : "";
}

// --- The state page ------------------------------------------------------------------------------

Json json_of_services_start(const HostFacts& facts) {
    const StatePage& page = *facts.page;
    const auto result = static_cast<PageResult>(page.services_result.load());
    if (result == PageResult::NONE) {
        return {};
    }
    const std::string text = page.services_text.get();
    return Json::object({{"at", json_event(page.services_started, facts)},
                         {"result", result == PageResult::SUCCESS ? "success" : "failure"},
                         {"text", text.empty() ? Json() : Json(text)}});
}

Json json_of_transfer(const HostFacts& facts) {
    const PageTransferNow& now = facts.page->transfer;
    if (now.kind == 0) {
        return {};
    }
    return Json::object({{"set", set_name(now.kind)},
                         {"records", now.records.load()},
                         {"bytes", now.bytes.load()},
                         {"since", json_event(now.since, facts)}});
}

Json json_of_set(const PageDataSet& set, const HostFacts& facts) {
    if (!set.done.ever()) {
        return {};
    }
    return Json::object({{"stamp", set.stamp.get()},
                         {"records", set.records.load()},
                         {"milliseconds", milliseconds(set.duration)},
                         {"at", json_event(set.done, facts)}});
}

Json json_of_fetch(const HostFacts& facts) {
    const StatePage& page = *facts.page;
    if (!page.fetch_began.ever()) {
        return {};
    }
    return Json::object(
        {{"server", page.fetch_server.get()},
         {"under_way", page.fetching != 0 ? json_event(page.fetch_began, facts) : Json()},
         {"last", json_event(page.fetch_ended, facts)},
         {"last_result", page.fetch_ended.ever() ? Json(page.fetch_result.load()) : Json()}});
}

Json json_of_counters(const PageCounters& counters) {
    Json json = Json::object();
    for (const CounterName& counter : COUNTERS) {
        json.add({counter.name, (counters.*counter.value).load()});
    }
    Json lines = Json::object();
    for (std::size_t n = 0; n < PAGE_LOG_LEVELS; ++n) {
        lines.add({LOG_LEVEL_NAMES[n], counters.log_lines[n].load()});
    }
    json.add({"log_lines", lines});
    return json;
}

Json json_of_page(const HostFacts& facts) {
    if (facts.page == nullptr) {
        return {};
    }
    const StatePage& page = *facts.page;
    const auto error = static_cast<int>(page.log_error);
    return Json::object(
        {{"version", page.version.get()},
         {"pid", page.pid.load()},
         {"started", json_event(page.started, facts)},
         {"master", page.master_ip.get()},
         {"slave", page.slave_ip.get()},
         {"bottle", page.bottle.load()},
         {"heartbeat", Json::object({{"sent", json_event(page.heartbeat_sent, facts)},
                                     {"received", json_event(page.heartbeat_received, facts)},
                                     {"answered", json_event(page.heartbeat_answered, facts)}})},
         {"take_over", json_event(page.take_over, facts)},
         {"step_down", json_event(page.step_down, facts)},
         {"services_start", json_of_services_start(facts)},
         {"transfer", json_of_transfer(facts)},
         {"sets", Json::object({{"config", json_of_set(page.sets[0], facts)},
                                {"client", json_of_set(page.sets[1], facts)}})},
         {"fetch", json_of_fetch(facts)},
         {"log_error", error != 0 ? Json(strerror(error)) : Json()},
         {"counters", json_of_counters(page.counters)}});
}

std::string role_text(const HostFacts& facts) {
    const HostRole role = role_of(facts);
    if (facts.page == nullptr) {
        return fmt::format("{}: {}", shown_role(facts), facts.no_page);
    }
    const StatePage& page = *facts.page;
    switch (role) {
        case HostRole::WAITING:
            return fmt::format("none: waits, {}",
                               reason_text(static_cast<RoleReason>(page.role_reason.load())));
        case HostRole::STOPPED:
            return "none: has obeyed SIGTERM; \"kill -9\" ends the process";
        case HostRole::ACTING_MASTER:
            return fmt::format("acting master since {}", wall_text(page.take_over.wall));
        case HostRole::ENDED:
            return fmt::format("ended; it was started at {}", wall_text(page.started.wall));
        default:
            return fmt::format(
                "{} since {}", role_name(role),
                wall_text(role == HostRole::SLAVE && page.step_down.ever() ? page.step_down.wall
                                                                           : page.started.wall));
    }
}

std::string records_text(std::int64_t records) {
    return counted(static_cast<std::size_t>(records), "record");
}

// --- Rows ----------------------------------------------------------------------------------------

void add_text(Rows& rows, const char* label, const std::string& text) {
    rows.push_back({{{label}, {text}}, {}});
}

void add_configured_role(const ConfiguredRole& configured, Rows& rows) {
    const int role = configured.decision.role;
    const Colour colour = role == 0 ? Colour::RED : Colour::PLAIN;
    rows.push_back({{{"configured role"}, {escape(configured.text), colour}},
                    {{"configured_role", Json::object({{"role", role == ROLE_MASTER  ? "master"
                                                                : role == ROLE_SLAVE ? "slave"
                                                                                     : "none"},
                                                       {"text", configured.text}})}}});
}

void add_host(const HostFacts& facts, Rows& rows) {
    const std::string& addresses = facts.configured.addresses;
    const HostRole role = role_of(facts);
    const bool plain = role == HostRole::MASTER || role == HostRole::SLAVE;
    rows.push_back(
        {{{"addresses"}, {addresses.empty() ? "none" : addresses}}, {{"addresses", addresses}}});
    add_configured_role(facts.configured, rows);
    rows.push_back(
        {{{"daemon"},
          {processes_text(facts.daemons), facts.daemons.size() == 1 ? Colour::PLAIN : Colour::RED}},
         {{"daemon", json_of(facts.daemons)}}});
    rows.push_back({{{"role"}, {escape(role_text(facts)), plain ? Colour::PLAIN : Colour::YELLOW}},
                    {{"role", shown_role(facts)},
                     {"no_state", facts.page == nullptr ? Json(facts.no_page) : Json()}}});
    rows.push_back({{{"boot services"},
                     {fmt::format("{}; marker 'dhcp' {}", processes_text(facts.services),
                                  setting(facts, KEY_DHCP))}},
                    {{"boot_services", json_of(facts.services)}}});
    rows.push_back(
        {{{"stamps"},
          {fmt::format("config {}, client {}, dsver {}", setting(facts, KEY_CONFIG_VERSION),
                       setting(facts, KEY_CLIENT_VERSION), setting(facts, KEY_DSVER))}},
         {{"settings", json_of_settings(facts)}}});
}

void add_beats(const HostFacts& facts, Rows& rows) {
    const StatePage& page = *facts.page;
    const PageCounters& counters = page.counters;
    if (page.role == ROLE_MASTER) {
        const std::string of = page.partner != 0 ? "of " + partner_text(page) + ": " : "";
        add_text(rows, "last heartbeat", of + event_text(page.heartbeat_received, facts));
        add_text(rows, "last answer", event_text(page.heartbeat_answered, facts));
        return;
    }
    add_text(rows, "last heartbeat", event_text(page.heartbeat_sent, facts));
    add_text(rows, "last answer", event_text(page.heartbeat_answered, facts));
    add_text(rows, "heartbeats",
             fmt::format("{} sent, {} answered, {} missed; bottle {}",
                         counters.heartbeats_sent.load(), counters.heartbeats_answered.load(),
                         counters.heartbeats_missed.load(), page.bottle.load()));
    add_text(rows, "last take-over", event_text(page.take_over, facts));
    if (page.services_result == static_cast<std::int64_t>(PageResult::FAILURE)) {
        add_text(rows, "", "the boot services did not start: " + escape(page.services_text.get()));
    }
    add_text(rows, "last step-down", event_text(page.step_down, facts));
}

void add_sets(const HostFacts& facts, Rows& rows) {
    const StatePage& page = *facts.page;
    if (page.transfer.kind != 0) {
        add_text(rows, "under way",
                 fmt::format("{}, {}, for {}", progress_text(page, facts.list_records),
                             bytes_text(static_cast<std::uint64_t>(page.transfer.bytes.load())),
                             age_text(seconds_since(page.transfer.since, facts))));
    }
    for (std::size_t n = 0; n < PAGE_DATA_SETS; ++n) {
        const PageDataSet& set = page.sets[n];
        if (set.done.ever()) {
            add_text(rows, n == 0 ? "last config set" : "last client set",
                     fmt::format("{}; {} in {:.2f} s, stamp {}", event_text(set.done, facts),
                                 records_text(set.records), static_cast<double>(set.duration) / 1e9,
                                 escape(set.stamp.get())));
        }
    }
    if (page.fetch_ended.ever()) {
        const auto result = page.fetch_result.load();
        add_text(rows, "last fetch",
                 fmt::format("{}: {}", event_text(page.fetch_ended, facts),
                             result == 0
                                 ? "whole"
                                 : fmt::format("failed with {}; \"quorsyncctl timeline\" shows why",
                                               result)));
    }
}

void add_copies(const std::vector<PeerCopy>& copies, Rows& rows) {
    for (const PeerCopy& copy : copies) {
        add_text(rows, ("copy of " + copy.address).c_str(),
                 copy.age ? fmt::format("dsver {}, {} old", escape(copy.dsver.value_or("absent")),
                                        age_text(*copy.age))
                          : "never fetched");
    }
}

void add_sync(const HostFacts& facts, const SyncVerdict& sync, Rows& rows) {
    struct Style {
        const char* word;
        Colour colour;
    };
    constexpr Style STYLES[] = {{"yes", Colour::GREEN},
                                {"no", Colour::RED},
                                {"copying", Colour::YELLOW},
                                {"cannot tell", Colour::YELLOW}};
    const Style& style = STYLES[static_cast<std::size_t>(sync.verdict)];
    const char* mark = sync.verdict == InSync::COPYING ? "," : ":";
    const Json copies = json_list(facts.copies, [](const PeerCopy& copy) {
        return Json::object({{"address", copy.address}, {"dsver", copy.dsver}, {"age", copy.age}});
    });
    rows.push_back(
        {{{"in sync"}, {fmt::format("{}{} {}", style.word, mark, sync.reason), style.colour}},
         {{"state", json_of_page(facts)},
          {"copies", copies},
          {"in_sync", Json::object({{"verdict", style.word}, {"reason", sync.reason}})}}});
}

Json json_of(const std::vector<Problem>& problems) {
    return json_list(problems, [](const Problem& problem) {
        return Json::object(
            {{"name", problem.name}, {"text", problem.text}, {"remedy", problem.remedy}});
    });
}

void add_problems(const HostFacts& facts, const Verdict& verdict, Rows& rows) {
    rows.back().members.push_back({"problems", json_of(verdict.problems)});
    rows.back().members.push_back({"warnings", json_of(verdict.warnings)});
    rows.back().members.push_back({"exit_code", exit_code_of(facts, verdict)});
    const auto add = [&rows](const Cell& mark, const Problem& problem) {
        rows.push_back(
            {{mark, {fmt::format("{}; {}", escape(problem.text), escape(problem.remedy))}}, {}});
    };
    for (const Problem& problem : verdict.problems) {
        add({"PROBLEM", Colour::RED}, problem);
    }
    for (const Problem& warning : verdict.warnings) {
        add({"warning", Colour::YELLOW}, warning);
    }
}

}  // namespace

Rows report_of(const HostFacts& facts, const Verdict& verdict) {
    Rows rows;
    add_host(facts, rows);
    if (facts.page != nullptr) {
        add_beats(facts, rows);
        add_sets(facts, rows);
    }
    add_copies(facts.copies, rows);
    add_sync(facts, verdict.sync, rows);
    add_problems(facts, verdict, rows);
    return rows;
}
