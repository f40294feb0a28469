#include "continuations.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace {

constexpr std::size_t LONGEST_LINE = 5000;

// Lines of several threads may come in the wrong order by a moment.
constexpr std::chrono::seconds DISORDER{2};

// Whether the message holds what comes from elsewhere. The stamp that closes a data set is digits.
bool holds_value(std::string_view text) {
    constexpr std::array<std::string_view, 4> BEGINNINGS = {
        "data ", " send data: ", "serverip:", "PK_Request_Client::"};
    const std::size_t stamp = text.find_last_not_of("0123456789") + 1;
    const std::string_view before = text.substr(0, stamp);
    const bool closes =
        stamp < text.size() && (before.ends_with(": dbver=") || before == " send data: dbver = ");
    return !closes && std::any_of(BEGINNINGS.begin(), BEGINNINGS.end(),
                                  [text](std::string_view each) { return text.starts_with(each); });
}

}  // namespace

void Continuations::add(std::size_t length, const LogMessage* message, bool at_start) {
    while (!with_values_.empty() && place_ >= with_values_.front().place + LONGEST_LINE) {
        with_values_.pop_front();
    }
    if (with_values_.empty()) {
        release();
    } else if (!at_start && (message != nullptr || ends_in_value(length))) {
        held_.clear();
    }
    if (message != nullptr) {
        judge(*message);
    }
    place_ += length;
}

bool Continuations::ends_in_value(std::size_t length) const {
    return place_ + length <= with_values_.back().place + LONGEST_LINE;
}

void Continuations::finish() {
    release();
}

// False where the message stands in a value, by its time; leaves out others that do, by its time.
bool Continuations::keeps_order(LogTime time) {
    if (time + DISORDER >= latest_) {  // as nearly always
        latest_ = std::max(latest_, time);
        return true;
    }
    const auto is_later = [time](const auto& each) {
        return each.time > time + DISORDER;
    };
    const bool too_early =
        !with_values_.empty() && std::all_of(with_values_.begin(), with_values_.end(), is_later);
    if (too_early) {
        return false;
    }
    std::erase_if(with_values_, is_later);
    std::erase_if(held_, is_later);
    latest_ = time + DISORDER;
    return true;
}

void Continuations::judge(const LogMessage& message) {
    if (!keeps_order(message.time)) {
        return;
    }
    if (holds_value(message.text)) {
        release();
        visit_(message);
        with_values_.push_back({place_, message.time});
    } else if (with_values_.empty()) {
        visit_(message);
    } else {
        held_.push_back({message.time, message.level, std::string(message.text)});
    }
}

void Continuations::release() {
    for (const Held& each : held_) {
        visit_({each.time, each.level, each.text});
    }
    held_.clear();
}
