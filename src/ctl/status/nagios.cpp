#include "ctl/status/nagios.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <string_view>
#include <vector>

#include "ctl/console.h"

namespace {

constexpr std::array<std::string_view, 4> WORDS = {"OK", "WARNING", "CRITICAL", "UNKNOWN"};
constexpr int OK = 0;
constexpr int WARNING = 1;
constexpr int CRITICAL = 2;
constexpr int UNKNOWN = 3;

constexpr std::array<std::string_view, 2> MILD = {"not_in_sync", "log_not_written"};

bool is_mild(const Problem& problem) {
    return std::find(MILD.begin(), MILD.end(), problem.name) != MILD.end();
}

int code_of(const HostFacts& facts, const Verdict& verdict) {
    if (!verdict.problems.empty()) {
        const bool mild = std::all_of(verdict.problems.begin(), verdict.problems.end(), is_mild);
        return mild ? WARNING : CRITICAL;
    }
    if (!verdict.warnings.empty()) {
        return WARNING;
    }
    const bool known = facts.config_failure.empty() && verdict.sync.verdict != InSync::CANNOT_TELL;
    return known ? OK : UNKNOWN;
}

std::string joined(const std::vector<std::string>& texts, std::string_view mark) {
    std::string line;
    for (const std::string& text : texts) {
        line += fmt::format("{}{}", line.empty() ? "" : mark, text);
    }
    return line;
}

std::string text_of(const HostFacts& facts, const Verdict& verdict) {
    constexpr std::array<std::string_view, 4> SYNC = {"in sync", "not in sync", "copying",
                                                      "sync unknown"};
    std::vector<std::string> texts;
    if (!facts.config_failure.empty()) {
        texts.push_back(facts.config_failure);
    }
    for (const auto& problems : {verdict.problems, verdict.warnings}) {
        for (const Problem& problem : problems) {
            texts.push_back(problem.text);
        }
    }
    texts.push_back(fmt::format("{}, {}: {}", shown_role(facts),
                                SYNC[static_cast<std::size_t>(verdict.sync.verdict)],
                                verdict.sync.reason));
    std::string text = escape(joined(texts, "; "));
    std::replace(text.begin(), text.end(), '|', '/');  // begins the performance data
    return text;
}

// label=value[UOM];[warn];[crit];[min];[max]
std::string performance_data(const HostFacts& facts) {
    if (facts.page == nullptr || role_of(facts) == HostRole::ENDED) {
        return "";
    }
    const StatePage& page = *facts.page;
    std::vector<std::string> data;
    if (page.heartbeat_answered.ever()) {
        const auto age = std::chrono::duration<double>(age_of(page.heartbeat_answered, facts));
        data.push_back(fmt::format("answer_age={:.1f}s;;;0", age.count()));
    }
    const std::int64_t copied = page.transfer.kind != 0 ? page.transfer.records.load() : 0;
    data.push_back(fmt::format("copied={};;;0", copied));
    const PageCounters& counters = page.counters;
    const auto add = [&data](std::string_view label, std::int64_t count) {
        data.push_back(fmt::format("{}={}c", label, count));
    };
    add("missed", counters.heartbeats_missed);
    add("take_overs", counters.take_overs);
    add("transfers", counters.transfers_whole);
    add("broken", counters.transfers_broken);
    add("log_lines_lost", counters.log_lines_lost);
    return " | " + joined(data, " ");
}

}  // namespace

NagiosResult nagios_result(const HostFacts& facts, const Verdict& verdict) {
    const int code = code_of(facts, verdict);
    return {code, fmt::format("QUORSYNCD {} - {}{}", WORDS[static_cast<std::size_t>(code)],
                              text_of(facts, verdict), performance_data(facts))};
}
