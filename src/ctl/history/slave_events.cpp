#include "slave_events.h"

#include <fmt/format.h>

#include <algorithm>

namespace {

// Five periods of the heartbeat. The slave itself gives up a silent master after 6 to 8 seconds,
// and what only delays beats takes less.
constexpr std::chrono::seconds SILENT{10};

constexpr long REGULAR = 3;  // beats in a row: others than slaves send one now and then
constexpr std::size_t MOST_SLAVES = 16;

TimelineEvent silence_of(const std::string& address, LogTime beat, LogTime until) {
    return {EventKind::SLAVE_SILENT,
            beat,
            until,
            1,
            fmt::format("no heartbeat of {} for {} s", address, seconds_between(beat, until)),
            {},
            {},
            {},
            false,
            {}};
}

}  // namespace

void SlaveEvents::watch(const ParsedMessage& message) {
    switch (message.meaning()) {
        case Meaning::START:
            slaves_.clear();
            return;
        case Meaning::BEAT_ANSWERED:
            beat(message.time, message.arguments[0]);
            return;
        case Meaning::PUSH:
        case Meaning::RECORD_OUT:  // meanwhile no beat is answered
            std::for_each(slaves_.begin(), slaves_.end(),
                          [&message](auto& entry) { entry.second.sign = message.time; });
            return;
        default:
            return;
    }
}

void SlaveEvents::beat(LogTime time, std::string_view address) {
    if (slaves_.size() >= MOST_SLAVES) {
        std::erase_if(slaves_, [time](const auto& entry) {
            return entry.second.regular < REGULAR && time - entry.second.beat > SILENT;
        });
    }
    auto found = slaves_.find(std::string(address));
    if (found == slaves_.end()) {
        if (slaves_.size() >= MOST_SLAVES) {
            return;
        }
        found = slaves_.emplace(address, Slave{time, time}).first;
    }
    Slave& slave = found->second;
    if (lasts_longer(slave.sign, time, SILENT)) {
        end_silence(found->first, slave, time);
        slave.regular = slave.regular < REGULAR ? 0 : slave.regular;  // it stays a slave
    }
    slave.beat = slave.sign = time;
    ++slave.regular;
}

void SlaveEvents::end_silence(const std::string& address, const Slave& slave, LogTime time) {
    if (slave.regular < REGULAR) {
        return;
    }
    events_.add(silence_of(address, slave.beat, time));
    events_.add(
        EventKind::SLAVE_BACK, time,
        fmt::format("{} beats again, after {} s", address, seconds_between(slave.beat, time)));
}

std::vector<TimelineEvent> SlaveEvents::silent_ones(LogTime now) const {
    std::vector<TimelineEvent> silent;
    for (const auto& [address, slave] : slaves_) {
        if (slave.regular >= REGULAR && lasts_longer(slave.sign, now, SILENT)) {
            silent.push_back(silence_of(address, slave.beat, now));
        }
    }
    return silent;
}
