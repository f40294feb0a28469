#include "log_state.h"

#include <fmt/format.h>

namespace {

// Beats come every 2 seconds; one that is older has been missed.
constexpr std::chrono::seconds FRESH{10};
constexpr long QUIET_BEATS = 2;

SyncVerdict judge_beats(const LogState& state, std::optional<LogTime> beat, LogTime now,
                        const std::string& partner) {
    if (!beat || now - *beat > FRESH) {
        return {InSync::CANNOT_TELL, beat ? fmt::format("nothing heard of the {} since {}", partner,
                                                        format_log_time(*beat))
                                          : fmt::format("nothing heard of the {}", partner)};
    }
    if (!state.open_transfer.empty()) {
        return {InSync::NO, fmt::format("the {} has not arrived whole", state.open_transfer)};
    }
    if (state.quiet_beats < QUIET_BEATS) {
        return {InSync::CANNOT_TELL, "too few heartbeats since the start or the last transfer"};
    }
    return {InSync::YES,
            fmt::format("the last {} answered heartbeats led to no transfer", state.quiet_beats)};
}

}  // namespace

SyncVerdict judge_sync(const LogState& state, LogTime now) {
    if (state.stop) {
        return {InSync::CANNOT_TELL, "the slave has stopped its work"};
    }
    if (state.role == "master") {
        return judge_beats(state, state.beat_back, now, "slave");
    }
    if (state.acting) {
        return {InSync::CANNOT_TELL, "acting as master: the master does not answer"};
    }
    return judge_beats(state, state.answer, now, "master");
}
