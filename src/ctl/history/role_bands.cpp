#include "role_bands.h"

#include <algorithm>
#include <array>

#include "event_list.h"

namespace {

// A pair at work logs each heartbeat, every 2 seconds.
constexpr std::chrono::seconds SILENCE{10};

// Lines of several threads may come in the wrong order by a moment.
constexpr std::chrono::seconds CLOCK_STEP{2};

BandKind band_of(const LogState& state) {
    if (!state.waiting.empty()) {
        return BandKind::WAITING;
    }
    if (state.stop) {
        return BandKind::STOPPED;
    }
    if (state.acting) {
        return BandKind::ACTING;
    }
    return state.role == "master"  ? BandKind::MASTER
           : state.role == "slave" ? BandKind::SLAVE
                                   : BandKind::UNKNOWN;
}

}  // namespace

std::string_view band_name(BandKind kind) {
    constexpr std::array<std::string_view, 7> NAMES = {
        "role unknown",  "waits for a role", "master",        "slave",
        "acting master", "stopped",          "nothing logged"};
    return NAMES[static_cast<std::size_t>(kind)];
}

void RoleBands::add(LogTime time, const LogState& state) {
    const BandKind kind = band_of(state);
    if (bands_.empty() || bands_.back().until - time > CLOCK_STEP) {
        bands_.push_back({kind, time, time});
        return;
    }
    RoleBand& last = bands_.back();
    const LogTime before = last.until;
    // A slave that was stopped logs nothing any more.
    if (lasts_longer(before, time, SILENCE) && last.kind != BandKind::STOPPED) {
        bands_.push_back({BandKind::SILENT, before, time});
        bands_.push_back({kind, time, time});
        return;
    }
    last.until = std::max(before, time);
    if (last.kind == BandKind::UNKNOWN) {
        last.kind = kind;  // which the host had all the time, only the log had not said so
    } else if (last.kind != kind) {
        bands_.push_back({kind, last.until, last.until});
    }
}
