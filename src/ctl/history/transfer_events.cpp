#include "transfer_events.h"

#include <fmt/format.h>

#include <algorithm>

#include "ctl/console.h"
#include "data_sets.h"
#include "keys.h"
#include "peer_message.h"
#include "text.h"

namespace {

constexpr std::size_t CONFIG = DATA_KIND_CONFIG;
constexpr std::size_t CLIENT = DATA_KIND_CLIENT;

constexpr std::chrono::seconds AT_ONCE{2};  // the answers to one heartbeat come within its period

std::string set_name(std::size_t kind) {
    return data_set_of(static_cast<std::uint32_t>(kind))->name + std::string(" set");
}

std::string rate_text(long records, long seconds) {
    return seconds == 0 ? "in less than a second"
                        : fmt::format("in {} s, {}/s", seconds, records / seconds);
}

// The kind of set that a message names, or 0.
std::size_t set_of(std::string_view number) {
    const DataSet* set = data_set_of(static_cast<std::uint32_t>(leading_number(number)));
    return set == nullptr ? 0 : set->kind;
}

}  // namespace

bool TransferEvents::handle(const ParsedMessage& message) {
    switch (message.meaning()) {
        case Meaning::CONFIG_ASKED_FOR:
            ask(CONFIG, message.time);
            return true;
        case Meaning::CLIENTS_ASKED_FOR:
            ask(CLIENT, message.time);
            return true;
        case Meaning::CONFIG_STAMPS:
            transfers_[CONFIG].stamp = message.arguments[3];
            return true;
        case Meaning::CLIENT_STAMPS:
            transfers_[CLIENT].stamp = message.arguments[3];
            return true;
        case Meaning::RECORD_IN:
            receive(message.time, set_of(message.arguments[0]), message.arguments[1],
                    message.arguments[2]);
            return true;
        case Meaning::BEAT_ANSWERED:
            state_.role = "master";
            return true;
        case Meaning::PUSH:
            begin_push(message.time, set_of(message.arguments[0]));
            return true;
        case Meaning::RECORD_OUT:
            send(message.time, message.arguments[0], message.arguments[1]);
            return true;
        default:
            note_failure(message);
            return false;
    }
}

// What a failure, which is reported by itself, means to a transfer.
void TransferEvents::note_failure(const ParsedMessage& failure) {
    switch (failure.meaning()) {
        case Meaning::STAMP_NOT_STORED:
            note_missing_stamp(failure);
            return;
        case Meaning::RECORD_LOST:
            ++transfers_[pushing_].unsent;
            return;
        case Meaning::RECORD_LEFT_OUT:
            --transfers_[pushing_].records;
            return;
        default:
            return;
    }
}

void TransferEvents::restart() {
    report_open_ones();
    transfers_ = {};
    pushing_ = 0;
}

void TransferEvents::report_open_ones() {
    for (std::size_t set = 1; set < transfers_.size(); ++set) {
        if (transfers_[set].open) {
            report(set, false);
        }
    }
}

// --- On a slave --------------------------------------------------------------------------------

// Answers that come at once, over two lines or after a standstill, make several requests: these are
// one attempt.
void TransferEvents::ask(std::size_t set, LogTime time) {
    const Transfer& transfer = transfers_[set];
    if (!transfer.open || transfer.records > 0 || time - transfer.begin >= AT_ONCE) {
        begin(EventKind::SYNC, set, time);
        transfers_[set].asked = true;
    }
}

void TransferEvents::receive(LogTime time, std::size_t set, std::string_view key,
                             std::string_view value) {
    if (set == 0) {
        return;
    }
    if (!transfers_[set].open) {
        begin(EventKind::SYNC, set, time);
    }
    if (key == DBVER_KEY) {
        end(set, time, value);
        return;
    }
    ++transfers_[set].records;
    transfers_[set].last = time;
}

// What was reported as whole was not.
void TransferEvents::note_missing_stamp(const ParsedMessage& failure) {
    Transfer& transfer = transfers_[failure.arguments[0] == KEY_CONFIG_VERSION ? CONFIG : CLIENT];
    if (transfer.event && transfer.whole_times > 0) {
        const std::string_view reason = failure.text.substr(failure.text.find(": ") + 2);
        --transfer.whole_times;
        events_.at(*transfer.event).text += fmt::format(", but its stamp not stored: {}", reason);
    }
}

// --- On a master -------------------------------------------------------------------------------

void TransferEvents::begin_push(LogTime time, std::size_t set) {
    if (set != 0) {
        pushing_ = set;
        begin(EventKind::PUSH, set, time);
    }
}

void TransferEvents::send(LogTime time, std::string_view key, std::string_view value) {
    if (pushing_ == 0) {
        return;
    }
    if (key == DBVER_KEY) {
        end(pushing_, time, value);
        return;
    }
    transfers_[pushing_].last = time;
    if (travels(*data_set_of(static_cast<std::uint32_t>(pushing_)), key)) {
        ++transfers_[pushing_].records;
    }
}

// --- Both --------------------------------------------------------------------------------------

void TransferEvents::begin(EventKind kind, std::size_t set, LogTime time) {
    Transfer& transfer = transfers_[set];
    if (transfer.open) {
        report(set, false);
    }
    kind_ = kind;
    transfer.open = true;
    transfer.begin = transfer.last = time;
    transfer.stamp.clear();
    transfer.role_changes = state_.role_changes;
    transfer.records = transfer.unsent = 0;
    note_open();
}

void TransferEvents::end(std::size_t set, LogTime time, std::string_view stamp) {
    transfers_[set].last = time;
    transfers_[set].stamp = stamp;
    report(set, true);
}

void TransferEvents::note_open() {
    state_.open_transfer = transfers_[CONFIG].open   ? set_name(CONFIG)
                           : transfers_[CLIENT].open ? set_name(CLIENT)
                                                     : "";
}

void TransferEvents::report(std::size_t set, bool whole) {
    Transfer& transfer = transfers_[set];
    transfer.open = false;
    note_open();
    const bool again = transfer.event && transfer.event_stamp == transfer.stamp &&
                       transfer.event_role_changes == transfer.role_changes &&
                       transfer.begin - events_.at(*transfer.event).until <= TOGETHER;
    if (!again) {
        transfer.first_event = events_.size();
        transfer.event_stamp = transfer.stamp;
        transfer.event_role_changes = transfer.role_changes;
        transfer.times = transfer.whole_times = 0;
    }
    // A push that nobody asked for anew belongs to the attempt before it.
    const bool repeated = again && kind_ == EventKind::SYNC && !transfer.asked;
    transfer.asked = false;
    transfer.times += repeated ? 0 : 1;
    transfer.whole_times = std::min(transfer.whole_times + (whole ? 1 : 0), transfer.times);
    if (!repeated && transfer.times < ENDLESS) {
        transfer.event = events_.size();
        events_.add(kind_, transfer.begin, {});
    } else if (!repeated && transfer.times == ENDLESS) {
        events_.remove(*transfer.event);  // one reports all from now on
        transfer.event = transfer.first_event;
    }
    TimelineEvent& event = events_.at(*transfer.event);
    event.kind = transfer.times < ENDLESS ? kind_ : EventKind::RESYNC;
    event.count = transfer.times < ENDLESS ? 1 : transfer.times;
    event.until = transfer.last;
    event.records = transfer.records;
    event.failed = !whole;
    event.seconds_from = event.seconds_to = seconds_between(transfer.begin, transfer.last);
    event.text = transfer.times < ENDLESS ? text_of_one(set, whole) : text_of_many(set);
}

std::string TransferEvents::text_of_one(std::size_t set, bool whole) const {
    const Transfer& transfer = transfers_[set];
    std::string text =
        fmt::format("{} {}: {}", set_name(set), kind_ == EventKind::SYNC ? "received" : "sent",
                    counted(static_cast<std::size_t>(std::max(transfer.records, 0L)), "record"));
    text += whole
                ? " " + rate_text(transfer.records, seconds_between(transfer.begin, transfer.last))
                : ", never came to its end";
    if (!transfer.stamp.empty()) {
        text += fmt::format(", stamp {}", transfer.stamp);
    }
    if (transfer.unsent > 0) {
        text += fmt::format(", {} of them lost", transfer.unsent);
    }
    if (transfer.times > 1) {
        text += fmt::format(", attempt {}", transfer.times);
    }
    return text;
}

std::string TransferEvents::text_of_many(std::size_t set) const {
    const Transfer& transfer = transfers_[set];
    return fmt::format("endless re-sync: {} {} again and again, {}, stamp {}", set_name(set),
                       kind_ == EventKind::SYNC ? "asked for" : "sent",
                       transfer.whole_times == 0 ? "and never to its end"
                       : transfer.whole_times == transfer.times
                           ? "though it came to its end each time"
                           : fmt::format("{} times to its end", transfer.whole_times),
                       transfer.stamp.empty() ? "unknown" : transfer.stamp);
}
