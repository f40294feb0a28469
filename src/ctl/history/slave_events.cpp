#include "slave_events.h"

#include <fmt/format.h>

#include <algorithm>

namespace {

// Five periods of the heartbeat. The slave itself gives up a silent master after 6 to 8 seconds,
// and what only delays beats takes less.
constexpr std::chrono::seconds SILENT{10};

constexpr long REGULAR = 3;  // beats in a row: others than slaves send one now and then
constexpr std::size_t MOST_SLAVES = 16;

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
    if (time - slave.sign > SILENT) {
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
    add_silence(address, slave, time);
    events_.add(
        EventKind::SLAVE_BACK, time,
        fmt::format("{} beats again, after {} s", address, seconds_between(slave.beat, time)));
}

void SlaveEvents::add_silence(const std::string& address, const Slave& slave, LogTime until) {
    events_
        .add(
            EventKind::SLAVE_SILENT, slave.beat,
            fmt::format("no heartbeat of {} for {} s", address, seconds_between(slave.beat, until)))
        .until = until;
}

void SlaveEvents::report_silent_ones(LogTime now) {
    for (const auto& [address, slave] : slaves_) {
        if (slave.regular >= REGULAR && now - slave.sign > SILENT) {
            add_silence(address, slave, now);
        }
    }
}
