#include "transfer_events.h"

#include <fmt/format.h>

#include <algorithm>

#include "ctl/console.h"
#include "data_sets.h"
#include "peer_message.h"
#include "text.h"

namespace {

constexpr std::size_t CONFIG = DATA_KIND_CONFIG;
constexpr std::size_t CLIENT = DATA_KIND_CLIENT;

std::string set_name(std::size_t kind) {
    return data_set_of(static_cast<std::uint32_t>(kind))->name + std::string(" set");
}

std::string rate_text(long records, long seconds) {
    return seconds == 0 ? "in less than a second"
                        : fmt::format("in {} s, {}/s", seconds, records / seconds);
}

// `text` without `key` and `separator` at its beginning.
std::optional<std::string_view> value_of(std::string_view text, std::string_view key,
                                         std::string_view separator) {
    if (!text.starts_with(key) || !text.substr(key.size()).starts_with(separator)) {
        return std::nullopt;
    }
    return text.substr(key.size() + separator.size());
}

// Whether the record "key = value" of a set's file goes to the slave.
bool is_pushed(std::size_t kind, std::string_view record) {
    const auto keys = data_set_of(static_cast<std::uint32_t>(kind))->keys;
    return keys.empty() || std::any_of(keys.begin(), keys.end(), [record](const char* key) {
               return value_of(record, key, " = ").has_value();
           });
}

}  // namespace

bool TransferStory::take(const LogMessage& message) {
    static constexpr std::array<Rule<TransferStory>, 6> RULES = {{
        {"data ", &TransferStory::on_record},
        {" send data: ", &TransferStory::on_sent},
        {"beat back to ", &TransferStory::on_beat_back},
        {"start_data_syncd ", &TransferStory::on_trigger},
        {"func:data_sync_trigger line", &TransferStory::on_versions},
        {"db:", &TransferStory::on_push},
    }};
    return apply_rules(*this, RULES, message);
}

void TransferStory::overhear(const LogMessage& failure) {
    static constexpr std::array<Rule<TransferStory>, 7> RULES = {{
        {"send data error:", &TransferStory::on_unsent},
        {"record too long, not sent", &TransferStory::on_too_long},
        {"sendto error:", &TransferStory::on_not_compared},
        {"own version stamps cannot be read", &TransferStory::on_not_compared},
        {"master_client_version == NULL", &TransferStory::on_not_compared},
        {"config_db_version not stored: ", &TransferStory::on_unstored_config},
        {"client_db_version not stored: ", &TransferStory::on_unstored_client},
    }};
    (void)apply_rules(*this, RULES, failure);
}

void TransferStory::restart() {
    tell_open_ones();
    transfers_ = {};
    pushing_ = 0;
}

void TransferStory::tell_open_ones() {
    for (std::size_t set = 1; set < transfers_.size(); ++set) {
        if (transfers_[set].open) {
            tell(set, false);
        }
    }
}

// --- On a slave --------------------------------------------------------------------------------

// "CONFIG" or "CLIENT": the master's answer had another stamp.
void TransferStory::on_trigger(LogTime time, std::string_view set) {
    begin(EventKind::SYNC, set == "CONFIG" ? CONFIG : CLIENT, time);
}

// "105 client_version:..., master_client_version:...", behind the trigger.
void TransferStory::on_versions(LogTime /*time*/, std::string_view versions) {
    if (const auto config = part_between(versions, "master_config_version:", ""); !config.empty()) {
        transfers_[CONFIG].stamp = config;
    }
    if (const auto client = part_between(versions, "master_client_version:", ""); !client.empty()) {
        transfers_[CLIENT].stamp = client;
    }
}

// "2: key=value"
void TransferStory::on_record(LogTime time, std::string_view record) {
    const auto set = static_cast<std::size_t>(leading_number(record.substr(0, 1)));
    // A full disk cuts lines off anywhere: there may be nothing behind "data ".
    if (set == 0 || set >= transfers_.size() || !record.substr(1).starts_with(": ")) {
        return;
    }
    if (!transfers_[set].open) {
        begin(EventKind::SYNC, set, time);
    }
    if (const auto stamp = value_of(record.substr(3), DBVER_KEY, "=")) {
        end(set, time, *stamp);
        return;
    }
    ++transfers_[set].records;
    transfers_[set].last = time;
}

void TransferStory::on_unstored_config(LogTime /*time*/, std::string_view reason) {
    unstored(CONFIG, reason);
}

void TransferStory::on_unstored_client(LogTime /*time*/, std::string_view reason) {
    unstored(CLIENT, reason);
}

// What was told as whole was not.
void TransferStory::unstored(std::size_t set, std::string_view reason) {
    Transfer& transfer = transfers_[set];
    if (transfer.event && transfer.whole_times > 0) {
        --transfer.whole_times;
        events_.at(*transfer.event).text += fmt::format(", but its stamp not stored: {}", reason);
    }
}

// --- On a master -------------------------------------------------------------------------------

// "10.77.0.2 :config-1#client-1"
void TransferStory::on_beat_back(LogTime time, std::string_view answer) {
    state_.role = "master";
    state_.beat_back = time;
    state_.beat_back_to = answer.substr(0, answer.find(' '));
    state_.beat_back_stamps = part_between(answer, " :", "");
    ++state_.quiet_beats;
}

// A heartbeat whose answer did not reach the slave, or which the slave could do nothing with.
void TransferStory::on_not_compared(LogTime /*time*/, std::string_view /*rest*/) {
    state_.quiet_beats = 0;
}

void TransferStory::on_push(LogTime time, std::string_view set) {
    const auto number = static_cast<std::size_t>(leading_number(set));
    if (number == CONFIG || number == CLIENT) {
        pushing_ = number;
        begin(EventKind::PUSH, number, time);
    }
}

// "key = value", also for settings that stay here.
void TransferStory::on_sent(LogTime time, std::string_view record) {
    if (pushing_ == 0) {
        return;
    }
    if (const auto stamp = value_of(record, DBVER_KEY, " = ")) {
        end(pushing_, time, *stamp);
        return;
    }
    transfers_[pushing_].last = time;
    if (is_pushed(pushing_, record)) {
        ++transfers_[pushing_].records;
    }
}

void TransferStory::on_unsent(LogTime /*time*/, std::string_view /*rest*/) {
    if (pushing_ != 0) {
        ++transfers_[pushing_].unsent;
    }
}

void TransferStory::on_too_long(LogTime /*time*/, std::string_view /*rest*/) {
    if (pushing_ != 0) {
        --transfers_[pushing_].records;
    }
}

// --- Both --------------------------------------------------------------------------------------

void TransferStory::begin(EventKind kind, std::size_t set, LogTime time) {
    Transfer& transfer = transfers_[set];
    if (transfer.open) {
        tell(set, false);
    }
    kind_ = kind;
    transfer.open = true;
    transfer.begin = transfer.last = time;
    transfer.stamp.clear();
    transfer.turn = state_.turns;
    transfer.records = transfer.unsent = 0;
    state_.quiet_beats = 0;
    note_open();
}

void TransferStory::end(std::size_t set, LogTime time, std::string_view stamp) {
    transfers_[set].last = time;
    transfers_[set].stamp = stamp;
    tell(set, true);
    state_.last_transfer = time;
    state_.quiet_beats = 0;
}

void TransferStory::note_open() {
    state_.open_transfer = transfers_[CONFIG].open   ? set_name(CONFIG)
                           : transfers_[CLIENT].open ? set_name(CLIENT)
                                                     : "";
}

void TransferStory::tell(std::size_t set, bool whole) {
    Transfer& transfer = transfers_[set];
    transfer.open = false;
    note_open();
    const bool again = transfer.event && transfer.event_stamp == transfer.stamp &&
                       transfer.event_turn == transfer.turn &&
                       transfer.begin - events_.at(*transfer.event).until <= TOGETHER;
    if (!again) {
        transfer.first_event = events_.size();
        transfer.event_stamp = transfer.stamp;
        transfer.event_turn = transfer.turn;
        transfer.times = transfer.whole_times = 0;
    }
    ++transfer.times;
    transfer.whole_times += whole ? 1 : 0;
    if (transfer.times < ENDLESS) {
        transfer.event = events_.size();
        events_.add(kind_, transfer.begin, {});
    } else if (transfer.times == ENDLESS) {
        events_.withdraw(*transfer.event);  // one tells of all from now on
        transfer.event = transfer.first_event;
    }
    TimelineEvent& event = events_.at(*transfer.event);
    event.kind = transfer.times < ENDLESS ? kind_ : EventKind::RESYNC;
    event.count = transfer.times < ENDLESS ? 1 : transfer.times;
    event.until = transfer.last;
    event.records = transfer.records;
    event.seconds_from = event.seconds_to = seconds_between(transfer.begin, transfer.last);
    event.text = transfer.times < ENDLESS ? text_of_one(set, whole) : text_of_many(set);
}

std::string TransferStory::text_of_one(std::size_t set, bool whole) const {
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

std::string TransferStory::text_of_many(std::size_t set) const {
    const Transfer& transfer = transfers_[set];
    return fmt::format("endless re-sync: {} {} again and again, {}, stamp {}", set_name(set),
                       kind_ == EventKind::SYNC ? "asked for" : "sent",
                       transfer.whole_times == 0 ? "and never to its end"
                       : transfer.whole_times == transfer.times
                           ? "though it came to its end each time"
                           : fmt::format("{} times to its end", transfer.whole_times),
                       transfer.stamp.empty() ? "unknown" : transfer.stamp);
}
