// Which role a host had when, as far as its log tells.
#pragma once

#include <string_view>
#include <vector>

#include "log_reader.h"
#include "log_state.h"

enum class BandKind {
    UNKNOWN,
    WAITING,  // for a role
    MASTER,
    SLAVE,
    ACTING,   // a slave that has taken over
    STOPPED,  // a slave that was asked to end
    SILENT,   // nothing was logged
};

// "acting master": as it is called in the picture.
std::string_view band_name(BandKind kind);

struct RoleBand {
    BandKind kind;
    LogTime from;
    LogTime until;
};

// A pure function of the messages. Bands follow each other in order of time, until the clock is set
// back.
class RoleBands {
public:
    // After each message, with what it has made of the host's state.
    void add(LogTime time, const LogState& state);

    const std::vector<RoleBand>& list() const { return bands_; }

private:
    std::vector<RoleBand> bands_;
};
