// The part of the timeline about data sets on their way: what a slave gets and a master sends.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>

#include "event_list.h"

class TransferStory {
public:
    TransferStory(EventList& events, LogState& state) : events_(events), state_(state) {}

    // False for a message that is not about these.
    bool take(const LogMessage& message);

    // Learns from a failure that the daemon logged, which is told elsewhere.
    void overhear(const LogMessage& failure);

    // The daemon was started anew.
    void restart();

    // Tells of the transfers that have not come to their end.
    void tell_open_ones();

private:
    // A set on its way, and the events that tell of it and of those before it with the same stamp.
    struct Transfer {
        bool open = false;
        LogTime begin{};
        LogTime last{};
        std::string stamp;
        long turn = 0;  // the LogState::turns at its begin
        long records = 0;
        long unsent = 0;

        std::size_t first_event = 0;
        std::optional<std::size_t> event;  // the last one
        std::string event_stamp;
        long event_turn = 0;
        long times = 0;
        long whole_times = 0;
    };

    void on_record(LogTime time, std::string_view record);
    void on_trigger(LogTime time, std::string_view set);
    void on_versions(LogTime time, std::string_view versions);
    void on_push(LogTime time, std::string_view set);
    void on_sent(LogTime time, std::string_view record);
    void on_beat_back(LogTime time, std::string_view answer);
    void on_unsent(LogTime time, std::string_view);
    void on_too_long(LogTime time, std::string_view);
    void on_not_compared(LogTime time, std::string_view);
    void on_unstored_config(LogTime time, std::string_view reason);
    void on_unstored_client(LogTime time, std::string_view reason);

    void begin(EventKind kind, std::size_t set, LogTime time);
    void end(std::size_t set, LogTime time, std::string_view stamp);
    void tell(std::size_t set, bool whole);
    void unstored(std::size_t set, std::string_view reason);
    std::string text_of_one(std::size_t set, bool whole) const;
    std::string text_of_many(std::size_t set) const;
    void note_open();

    EventList& events_;
    LogState& state_;
    EventKind kind_ = EventKind::SYNC;     // which of the two this host does
    std::array<Transfer, 3> transfers_{};  // by DATA_KIND_*; none at 0
    std::size_t pushing_ = 0;              // the set whose records are being sent
};
