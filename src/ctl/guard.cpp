#include "guard.h"

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>

#include "forecast.h"
#include "local_addresses.h"
#include "log.h"
#include "log_story.h"
#include "owned.h"
#include "proc_info.h"
#include "process_state.h"

namespace {

using namespace std::chrono_literals;

constexpr auto LIMIT = 3s;  // for a killed process to go, and for a started one to be seen
constexpr auto STEP = 20ms;

RoleDecision decision_by_forecast() {
    const std::string addresses(text_of(OwnedText(local_ip_list())));
    return forecast_role(read_pair_settings(), addresses).decision;
}

LogState state_by_log() {
    LogStory story;
    (void)read_logs(LOG_DIRECTORY, parse_since("yesterday", log_time_now()), story);
    return story.timeline.state();
}

}  // namespace

bool is_slave_by_forecast() {
    return decision_by_forecast().role == ROLE_SLAVE;
}

bool has_left_over_services() {
    const RoleDecision forecast = decision_by_forecast();
    const bool address_missing = forecast.reason == RoleReason::NO_LOCAL_ADDRESS ||
                                 forecast.reason == RoleReason::NOT_IN_PAIR;
    if (!address_missing) {
        return forecast.role == ROLE_SLAVE;
    }
    const LogState state = state_by_log();
    return state.acting || state.services_left;
}

bool stands_by_a_living_master() {
    return is_slave_by_forecast() && !processes_named(PROGRAM_NAME).empty() &&
           !state_by_log().acting;
}

bool comes_to_run(std::string_view name, bool running, const std::vector<ProcessInfo>& dying) {
    const auto deadline = std::chrono::steady_clock::now() + LIMIT;
    const auto counts = [&dying](const ProcessInfo& process) {
        return std::none_of(dying.begin(), dying.end(), [&process](const ProcessInfo& other) {
            return other.pid == process.pid;
        });
    };
    const auto runs = [&] {
        const auto found = processes_named(name);
        return std::any_of(found.begin(), found.end(), counts);
    };
    while (runs() != running) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(STEP);
    }
    return true;
}
