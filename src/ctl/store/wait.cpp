#include "wait.h"

#include <thread>

#include "ctl/console.h"
#include "ctl/daemon_state.h"
#include "ctl/verbs.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto LOOK_AGAIN = 200ms;
constexpr std::int64_t QUIET_ANSWERS = 2;

// A later stamp will do: the set has been changed again, and the slave has that one.
bool is_taken(const StatePage& page, const DataSet& set, const std::string& stamp) {
    const std::string answered = page.answered_stamps[set.kind - 1].get();
    return answered.size() == stamp.size() && answered >= stamp &&
           page.quiet_answers >= QUIET_ANSWERS;
}

std::string state_text(const StatePage& page, const DataSet& set) {
    return page.transfer.kind == set.kind ? progress_text(page) : "waits for the slave";
}

}  // namespace

bool serves_as_master() {
    return role_of(daemon_state()) == HostRole::MASTER;
}

int wait_for_slave(const DataSet& set, const std::string& stamp, std::chrono::seconds limit) {
    const auto start = Clock::now();
    bool is_master = true;
    {
        ProgressBar progress(set.name);
        while (is_master && Clock::now() - start < limit) {
            const DaemonState state = daemon_state();
            is_master = role_of(state) == HostRole::MASTER;
            if (is_master && is_taken(*state.page, set, stamp)) {
                const auto passed = Clock::now() - start;
                say("{}: the slave has {} after {} s", set.name, stamp,
                    std::chrono::duration_cast<std::chrono::seconds>(passed).count());
                return EXIT_FINE;
            }
            if (is_master) {
                progress.tell(state_text(*state.page, set));
                std::this_thread::sleep_for(LOOK_AGAIN);
            }
        }
    }
    if (!is_master) {
        complain(
            "{}: the daemon of this host is no longer master; whether a slave has {} is not "
            "known; \"quorsyncctl status\" tells more",
            set.name, stamp);
        return EXIT_PROBLEM;
    }
    complain("{}: no slave has taken {} within {} s; \"quorsyncctl status\" tells more", set.name,
             stamp, limit.count());
    return EXIT_PROBLEM;
}
