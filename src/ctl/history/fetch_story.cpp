#include "fetch_story.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

namespace {

constexpr std::size_t MAX_QUEUE = 1000;

// How the failures of the request client and of the file transfer begin.
constexpr std::array<std::string_view, 9> FETCH_FAILURES = {
    "Connect error", "Send Ret",          "Recv Ret",  "Rcev Ret",  "cRecvData.",
    "FILE_MGR",      "File.OpenRwAlways", "recv_file", " recv_file"};

}  // namespace

bool FetchStory::take(const LogMessage& message) {
    static constexpr std::array<Rule<FetchStory>, 4> RULES = {{
        {"serverip:", &FetchStory::on_server},
        {"Arg->op:", &FetchStory::on_begin},
        {"Client.GetServerFile nRet:", &FetchStory::on_failed},
        {"refresh_dhcp", &FetchStory::on_done},
    }};
    // "refresh_dhcp open ... error ..." is a failure.
    return !message.text.starts_with("refresh_dhcp ") && apply_rules(*this, RULES, message);
}

void FetchStory::restart() {
    queue_.clear();
    server_.reset();
}

// "10.77.0.2 dsver:..." for each heartbeat, "10.77.0.2 --add_to_sync_config_db--70" for a job.
void FetchStory::on_server(LogTime /*time*/, std::string_view server) {
    if (server.find("--add_to_sync_config_db--") != std::string_view::npos &&
        queue_.size() < MAX_QUEUE) {
        queue_.emplace_back(server.substr(0, server.find(' ')));
    }
}

void FetchStory::on_begin(LogTime /*time*/, std::string_view /*rest*/) {
    server_ = "another server";
    if (!queue_.empty()) {
        server_ = queue_.front();
        queue_.pop_front();
    }
    failure_.clear();
}

bool FetchStory::take_failure(const LogMessage& failure) {
    const bool ours = server_ && std::any_of(FETCH_FAILURES.begin(), FETCH_FAILURES.end(),
                                             [&failure](std::string_view start) {
                                                 return failure.text.starts_with(start);
                                             });
    if (ours && failure_.empty()) {
        failure_ = without_origin(failure.text);
    }
    return ours;
}

void FetchStory::on_failed(LogTime time, std::string_view result) {
    tell(time,
         fmt::format("config.db of {} could not be fetched: {}", server_.value_or("another server"),
                     failure_.empty() ? fmt::format("result {}", result) : failure_));
    server_.reset();
}

void FetchStory::on_done(LogTime time, std::string_view /*rest*/) {
    if (!server_) {
        return;
    }
    TimelineEvent& event = tell(time, fmt::format("config.db of {} fetched", *server_));
    if (event.count == ENDLESS) {
        event.kind = EventKind::RESYNC;
        event.text = fmt::format(
            "endless re-sync: {}, though its 'dsver' never comes to equal the "
            "copy's",
            event.text);
    }
    server_.reset();
}

TimelineEvent& FetchStory::tell(LogTime time, const std::string& text) {
    return events_.repeat(EventKind::FETCH, time, text);
}
