#include "picture_file.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>

#include "ctl/console.h"
#include "ctl/verbs.h"
#include "log.h"
#include "picture.h"
#include "picture_html.h"
#include "replace_file.h"
#include "timeline.h"

namespace {

// The logs of some hours need not tell the address.
std::string name_of(const std::string& address, const std::string& directory) {
    std::array<char, HOST_NAME_MAX + 1> host{};
    if (address.empty() && directory == LOG_DIRECTORY &&
        gethostname(host.data(), host.size()) == 0) {
        return host.data();
    }
    return address.empty() ? directory : address;
}

ServerHistory server_of(Timeline& timeline, const std::string& directory) {
    std::vector<TimelineEvent> events = timeline.finish();
    const std::vector<TimelineEvent> missed = timeline.missed_beats();
    events.insert(events.end(), missed.begin(), missed.end());
    return {name_of(timeline.own_address(), directory), directory, timeline.bands(),
            std::move(events)};
}

// 0 or an errno.
int write_new_file(const std::string& path, const std::string& text) {
    std::FILE* file = std::fopen(path.c_str(), "wxe");
    if (file == nullptr) {
        return errno;
    }
    const int unwritten = std::fwrite(text.data(), 1, text.size(), file) == text.size() ? 0 : errno;
    const int unclosed = std::fclose(file) == 0 ? 0 : errno;
    return unwritten != 0 ? unwritten : unclosed;
}

// Hidden, because "FILE.new" may be the operator's own.
std::string fresh_name(const std::filesystem::path& file) {
    return file.parent_path() / ("." + file.filename().string() + ".new");
}

}  // namespace

int draw_timeline(const std::string& file, const std::vector<std::string>& directories,
                  std::optional<LogTime> since) {
    // It is replaced and not written to: a device would be gone.
    std::error_code unknown;
    if (std::filesystem::exists(file, unknown) &&
        !std::filesystem::is_regular_file(file, unknown)) {
        throw WrongUse("--html", "\"" + file + "\" is no ordinary file");
    }
    std::vector<ServerHistory> servers;
    bool all_read = true;
    for (const std::string& directory : directories) {
        History history = read_history(directory, since);
        if (!history.failure.empty()) {
            complain("{}", history.failure);
            return EXIT_CANNOT_TELL;
        }
        complain_of_unread(history);
        all_read &= history.unread.empty();
        reach_present(history.timeline, directory);
        servers.push_back(server_of(history.timeline, directory));
    }
    const Picture picture = lay_out(servers, range_of(servers, since.value_or(log_time_now())));
    const std::string page = html_of(picture);
    const Replacement written =
        replace_file_by(fresh_name(file), file,
                        [&page](const std::string& fresh) { return write_new_file(fresh, page); });
    if (!written.in_place) {
        complain("{} is not written: {}", escape(file), std::strerror(written.error));
        return EXIT_PROBLEM;
    }
    say("{}: {}, {} to {}, {}", escape(file), counted(servers.size(), "server"),
        format_log_time(picture.range.from), format_log_time(picture.range.until),
        bytes_text(page.size()));
    const bool attention = std::any_of(servers.begin(), servers.end(), [](const auto& server) {
        return wants_attention(server.events);
    });
    return !all_read ? EXIT_CANNOT_TELL : attention ? EXIT_PROBLEM : EXIT_FINE;
}
