// The part of the timeline about data sets on their way: what a slave gets and a master sends.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>

#include "event_list.h"
#include "log_state.h"
#include "message_parser.h"

class TransferEvents {
public:
    TransferEvents(EventList& events, LogState& state) : events_(events), state_(state) {}

    // Whether the message is one of these. A failure never is, but what it means to a transfer is
    // noted.
    bool handle(const ParsedMessage& message);

    // The daemon was started anew.
    void restart();

    // Reports the transfers that have not come to their end.
    void report_open_ones();

private:
    // A set on its way, and the events that report it and those before it with the same stamp.
    struct Transfer {
        bool open = false;
        bool asked = false;  // it began with a request
        LogTime begin{};
        LogTime last{};
        std::string stamp;
        long role_changes = 0;  // those of the LogState at its begin
        long records = 0;
        long unsent = 0;

        std::size_t first_event = 0;
        std::optional<std::size_t> event;  // the last one
        std::string event_stamp;
        long event_role_changes = 0;
        long times = 0;
        long whole_times = 0;
    };

    void note_failure(const ParsedMessage& failure);
    void ask(std::size_t set, LogTime time);
    void receive(LogTime time, std::size_t set, std::string_view key, std::string_view value);
    void note_missing_stamp(const ParsedMessage& failure);
    void begin_push(LogTime time, std::size_t set);
    void send(LogTime time, std::string_view key, std::string_view value);

    void begin(EventKind kind, std::size_t set, LogTime time);
    void end(std::size_t set, LogTime time, std::string_view stamp);
    void report(std::size_t set, bool whole);
    std::string text_of_one(std::size_t set, bool whole) const;
    std::string text_of_many(std::size_t set) const;
    void note_open();

    EventList& events_;
    LogState& state_;
    EventKind kind_ = EventKind::SYNC;     // which of the two this host does
    std::array<Transfer, 3> transfers_{};  // by DATA_KIND_*; nobody looks at 0
    std::size_t pushing_ = 0;              // the set whose records are being sent, or 0
};
