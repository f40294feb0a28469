// The part of the timeline about a master that fetches the config.db of other servers.
#pragma once

#include <deque>
#include <optional>
#include <string>
#include <string_view>

#include "event_list.h"

class FetchStory {
public:
    explicit FetchStory(EventList& events) : events_(events) {}

    // False for a message that is not about these.
    bool take(const LogMessage& message);

    // Whether the failure that the daemon logged is a part of the fetch under way.
    bool take_failure(const LogMessage& failure);

    // The daemon was started anew.
    void restart();

private:
    void on_server(LogTime time, std::string_view server);
    void on_begin(LogTime time, std::string_view);
    void on_failed(LogTime time, std::string_view result);
    void on_done(LogTime time, std::string_view);
    TimelineEvent& tell(LogTime time, const std::string& text);

    EventList& events_;
    std::deque<std::string> queue_;      // servers that will be asked
    std::optional<std::string> server_;  // that is asked now
    std::string failure_;                // the first that was logged meanwhile
};
