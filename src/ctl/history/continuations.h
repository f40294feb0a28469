// Tells the messages of a log from lines that stand in a value.
//
// The daemon writes a value as it is, so that one with a newline may hold what looks like messages.
// Values come from the other server or from the network; the lines behind a message with one may
// still belong to it. Of these are left out:
// * those that a line without a stamp follows: only a message with a value goes on so;
// * those with an earlier time than all messages with a value just before, or with a later time
//   than the next line.
// So no message is left out, except where the clock is set back just behind a value. A line with
// the right time that ends its value is not to be told from a message.
#pragma once

#include <cstddef>
#include <deque>
#include <string>
#include <vector>

#include "log_reader.h"

class Continuations {
public:
    // What counts as a message goes to `visit`, each at the latest with finish().
    explicit Continuations(const MessageVisitor& visit) : visit_(visit) {}

    // The next line of `length` bytes; `message` where one begins in it, at its start or later.
    void add(std::size_t length, const LogMessage* message, bool at_start);
    void finish();

private:
    struct Held {
        LogTime time;
        int level;
        std::string text;
    };
    struct WithValue {
        std::size_t place;
        LogTime time;
    };

    bool ends_in_value(std::size_t length) const;
    bool keeps_order(LogTime time);
    void judge(const LogMessage& message);
    void release();

    const MessageVisitor& visit_;
    std::size_t place_ = 0;              // bytes so far
    LogTime latest_{};                   // no time below is later than this
    std::deque<WithValue> with_values_;  // whose values may not have ended
    std::vector<Held> held_;             // without values, behind the last of those
};
