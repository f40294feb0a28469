// The part of the timeline about the slaves of a master: whether their heartbeats come.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "event_list.h"
#include "message_parser.h"

class SlaveEvents {
public:
    explicit SlaveEvents(EventList& events) : events_(events) {}

    // Any message.
    void watch(const ParsedMessage& message);

    // The silences that last, where the master has been at work until then.
    std::vector<TimelineEvent> silent_ones(LogTime now) const;

private:
    struct Slave {
        LogTime beat;      // the last one
        LogTime sign;      // that, or what kept the master from answering beats
        long regular = 0;  // beats in a row, until they are enough
    };

    void beat(LogTime time, std::string_view address);
    void end_silence(const std::string& address, const Slave& slave, LogTime time);

    EventList& events_;
    std::map<std::string, Slave> slaves_;  // by address
};
