#include "ctl/status/metrics.h"

#include <fmt/format.h>

#include <algorithm>
#include <string_view>

#include "ctl/status/counters.h"

namespace {

constexpr const char* SET_NAMES[PAGE_DATA_SETS] = {"config", "client"};

// Families of metrics, one after the other.
class Exposition {
public:
    void begin(std::string_view name, std::string_view type, std::string_view help) {
        name_ = name;
        text_ +=
            fmt::format("# HELP quorsyncd_{} {}\n# TYPE quorsyncd_{} {}\n", name, help, name, type);
    }

    template <typename Number>
    void sample(Number value) {
        text_ += fmt::format("quorsyncd_{} {}\n", name_, value);
    }

    template <typename Number>
    void sample(std::string_view label, std::string_view label_value, Number value) {
        text_ += fmt::format("quorsyncd_{}{{{}=\"{}\"}} {}\n", name_, label, label_value, value);
    }

    template <typename Number>
    void gauge(std::string_view name, std::string_view help, Number value) {
        begin(name, "gauge", help);
        sample(value);
    }

    std::string text() { return std::move(text_); }

private:
    std::string name_;
    std::string text_;
};

double seconds(std::int64_t nanoseconds) {
    return static_cast<double>(nanoseconds) / 1e9;
}

void add_time(Exposition& out, std::string_view name, std::string_view help, const PageTime& time) {
    out.gauge(fmt::format("{}_timestamp_seconds", name), help, seconds(time.wall));
}

void add_verdict(Exposition& out, const HostFacts& facts, const Verdict& verdict) {
    const HostRole role = role_of(facts);
    out.gauge("up", "Whether the daemon runs.", role == HostRole::ENDED ? 0 : 1);
    out.begin("role", "gauge", "1 for the role that this host has.");
    out.sample("role", "master", role == HostRole::MASTER ? 1 : 0);
    out.sample("role", "slave", role == HostRole::SLAVE ? 1 : 0);
    out.sample("role", "acting_master", role == HostRole::ACTING_MASTER ? 1 : 0);
    if (verdict.sync.verdict == InSync::YES || verdict.sync.verdict == InSync::NO) {
        out.gauge("in_sync",
                  "Whether both servers have the same data; absent where this host cannot tell or "
                  "a data set is being copied.",
                  verdict.sync.verdict == InSync::YES ? 1 : 0);
    }
    out.begin("problem", "gauge", "1 for each state that an operator must act on or know of.");
    for (const char* name : PROBLEM_NAMES) {
        const auto has = [name](const std::vector<Problem>& problems) {
            return std::any_of(problems.begin(), problems.end(),
                               [name](const Problem& problem) { return problem.name == name; });
        };
        out.sample("name", name, has(verdict.problems) || has(verdict.warnings) ? 1 : 0);
    }
    out.begin("boot_service_running", "gauge", "Whether a boot service runs on this host.");
    for (const char* service : BOOT_SERVICES) {
        out.sample("service", service, runs(facts.services, service) ? 1 : 0);
    }
}

void add_times(Exposition& out, const StatePage& page) {
    out.begin("build_info", "gauge", "The version of the daemon.");
    out.sample("version", page.version.get(), 1);
    out.gauge("start_time_seconds", "When the daemon was started.", seconds(page.started.wall));
    add_time(out, "heartbeat_sent", "When this slave last sent a heartbeat, or 0.",
             page.heartbeat_sent);
    add_time(out, "heartbeat_received", "When this master last received a heartbeat, or 0.",
             page.heartbeat_received);
    add_time(out, "heartbeat_answered", "When a heartbeat was last answered, or 0.",
             page.heartbeat_answered);
    add_time(out, "take_over", "When this slave last took over, or 0.", page.take_over);
    add_time(out, "step_down", "When this slave last stepped down, or 0.", page.step_down);
    add_time(out, "fetch", "When the last fetch of another server's settings ended, or 0.",
             page.fetch_ended);
}

void add_sets(Exposition& out, const StatePage& page) {
    const auto add = [&](std::string_view name, std::string_view help, auto value_of) {
        out.begin(name, "gauge", help);
        for (std::size_t n = 0; n < PAGE_DATA_SETS; ++n) {
            out.sample("set", SET_NAMES[n], value_of(page.sets[n]));
        }
    };
    add("data_set_timestamp_seconds", "When a data set was last pushed or received whole, or 0.",
        [](const PageDataSet& set) { return seconds(set.done.wall); });
    add("data_set_records", "Records of that data set.",
        [](const PageDataSet& set) { return set.records.load(); });
    add("data_set_duration_seconds", "How long that took.",
        [](const PageDataSet& set) { return seconds(set.duration); });
    const bool under_way = page.transfer.kind != 0;
    out.gauge("transfer_under_way", "Whether a data set is being pushed or received.",
              under_way ? 1 : 0);
    out.gauge("transfer_bytes", "Bytes of the push or reception under way, or 0.",
              under_way ? page.transfer.bytes.load() : 0);
}

void add_counters(Exposition& out, const PageCounters& counters) {
    for (const CounterName& counter : COUNTERS) {
        out.begin(fmt::format("{}_total", counter.name), "counter", counter.help);
        out.sample((counters.*counter.value).load());
    }
    out.begin("log_lines_total", "counter", "Messages that the daemon logged.");
    for (std::size_t n = 0; n < PAGE_LOG_LEVELS; ++n) {
        out.sample("level", LOG_LEVEL_NAMES[n], counters.log_lines[n].load());
    }
}

}  // namespace

std::string metrics_of(const HostFacts& facts, const Verdict& verdict) {
    Exposition out;
    add_verdict(out, facts, verdict);
    if (facts.page != nullptr && role_of(facts) != HostRole::ENDED) {
        add_times(out, *facts.page);
        add_sets(out, *facts.page);
        add_counters(out, facts.page->counters);
    }
    return out.text();
}
