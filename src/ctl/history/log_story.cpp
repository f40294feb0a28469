#include "log_story.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>

namespace {

// A file may go on for a moment into the next day, when the clock is set.
constexpr std::chrono::hours FILE_SPAN{25};

}  // namespace

bool read_logs(const std::string& directory, std::optional<LogTime> since, LogStory& story) {
    const auto logs = daily_logs(directory);
    if (!logs || logs->empty()) {
        story.failure =
            fmt::format("{}: {}; --dir names another directory", directory,
                        logs ? "holds no daily log \"quorsyncd_YYYY_MM_DD.log\"" : strerror(errno));
        return false;
    }
    for (const DailyLog& log : *logs) {
        if (since && log.day + FILE_SPAN < *since) {
            continue;
        }
        const bool whole = visit_messages(log.path, [&](const LogMessage& message) {
            if (!since || message.time >= *since) {
                story.timeline.add(message);
            }
        });
        if (!whole) {
            story.failure = fmt::format("{} cannot be read: {}", log.path, strerror(errno));
            return false;
        }
    }
    return true;
}
