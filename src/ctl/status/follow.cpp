#include "ctl/status/follow.h"

#include <fmt/format.h>

#include <chrono>
#include <cstdio>
#include <optional>
#include <thread>

#include "ctl/console.h"
#include "ctl/history/log_reader.h"
#include "ctl/status/verdict.h"
#include "ctl/verbs.h"

namespace {

using namespace std::chrono_literals;

constexpr auto LOOK_AGAIN = 250ms;
constexpr auto UNANSWERED = 5s;  // two heartbeats and a half

void add_role(const Followed* before, const Followed& now, std::vector<std::string>& lines) {
    if (before == nullptr || before->role != now.role) {
        lines.push_back(fmt::format("role    {}", now.role));
    }
}

void add_answer(const Followed* before, const Followed& now, std::vector<std::string>& lines) {
    const bool known = before != nullptr && before->beats && now.beats;
    if (known && before->answered != now.answered) {
        lines.emplace_back(now.answered ? "answer  back" : "answer  lost");
    }
}

void add_transfer(const Followed& before, const Followed& now, std::vector<std::string>& lines) {
    if (now.transfers_whole > before.transfers_whole) {
        lines.push_back(fmt::format("sync    {} whole, {}", set_name(now.last_set),
                                    counted(static_cast<std::size_t>(now.last_records), "record")));
    }
    if (now.transfers_broken > before.transfers_broken) {
        lines.push_back(fmt::format("sync    {} broken off",
                                    before.set != 0 ? set_name(before.set) : "a data set"));
    }
    if (now.set != 0 && (before.set != now.set || before.records != now.records)) {
        lines.push_back(fmt::format("sync    {} under way, {}", set_name(now.set),
                                    counted(static_cast<std::size_t>(now.records), "record")));
    }
}

void add_fetch(const Followed& before, const Followed& now, std::vector<std::string>& lines) {
    if (now.fetches_whole > before.fetches_whole) {
        lines.push_back(fmt::format("fetch   settings of {} whole", escape(now.fetch_server)));
    }
    if (now.fetches_failed > before.fetches_failed) {
        lines.push_back(fmt::format("fetch   settings of {} failed", escape(now.fetch_server)));
    }
    if (now.fetching && !before.fetching) {
        lines.push_back(fmt::format("fetch   settings of {} under way", escape(now.fetch_server)));
    }
}

std::int64_t last_set_of(const StatePage& page) {
    return page.sets[0].done.monotonic > page.sets[1].done.monotonic ? 1 : 2;
}

}  // namespace

Followed followed_of(const DaemonState& facts) {
    const HostRole role = role_of(facts);
    Followed followed;
    followed.role = role == HostRole::ENDED ? "none: the daemon does not run" : role_name(role);
    if (facts.page == nullptr || role == HostRole::ENDED) {
        return followed;
    }
    const StatePage& page = *facts.page;
    followed.beats = role != HostRole::WAITING && role != HostRole::STOPPED;
    followed.answered =
        page.heartbeat_answered.ever() && age_of(page.heartbeat_answered, facts) < UNANSWERED;
    followed.set = page.transfer.kind;
    followed.records = page.transfer.records;
    followed.transfers_whole = page.counters.transfers_whole;
    followed.transfers_broken = page.counters.transfers_broken;
    followed.last_set = last_set_of(page);
    followed.last_records = page.sets[static_cast<std::size_t>(followed.last_set - 1)].records;
    followed.fetching = page.fetching != 0;
    followed.fetch_server = page.fetch_server.get();
    followed.fetches_whole = page.counters.fetches_whole;
    followed.fetches_failed = page.counters.fetches_failed;
    return followed;
}

std::vector<std::string> changes_between(const Followed* before, const Followed& now) {
    std::vector<std::string> lines;
    add_role(before, now, lines);
    add_answer(before, now, lines);
    if (before != nullptr) {
        add_transfer(*before, now, lines);
        add_fetch(*before, now, lines);
    }
    return lines;
}

int follow_host() {
    std::optional<Followed> before;
    for (;; std::this_thread::sleep_for(LOOK_AGAIN)) {
        const Followed now = followed_of(daemon_state());
        for (const std::string& line : changes_between(before ? &*before : nullptr, now)) {
            say("{}  {}", format_log_time(log_time_now()), line);
        }
        if (std::fflush(stdout) != 0) {
            return EXIT_CANNOT_TELL;  // nobody reads any more
        }
        before = now;
    }
}
