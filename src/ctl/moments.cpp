#include "moments.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstdlib>

#include "local_time.h"

namespace {

// "+01:00"
std::string zone_text(const std::tm& local) {
    const long minutes = std::labs(local.tm_gmtoff) / 60;
    return fmt::format("{}{:02}:{:02}", local.tm_gmtoff < 0 ? '-' : '+', minutes / 60,
                       minutes % 60);
}

std::string text_of_time(const std::tm& local) {
    std::array<char, 32> text{};
    return {text.data(), std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &local)};
}

}  // namespace

std::string moment_text(std::time_t moment) {
    return text_of_time(local_time(moment));
}

Json json_moment(std::time_t moment, long seconds_ago) {
    const std::tm local = local_time(moment);
    return Json::object({{"time", text_of_time(local)},
                         {"zone", zone_text(local)},
                         {"epoch", std::int64_t{moment}},
                         {"seconds_ago", std::int64_t{seconds_ago}}});
}

std::string processes_text(const std::vector<ProcessInfo>& processes) {
    std::string text;
    for (const ProcessInfo& process : processes) {
        text += fmt::format("{}{} since {}", text.empty() ? "" : ", ", describe(process),
                            moment_text(process.since));
    }
    return text.empty() ? "none runs" : text;
}

Json json_of(const std::vector<ProcessInfo>& processes) {
    return json_list(processes, [](const ProcessInfo& process) {
        const long age = std::max<long>(std::time(nullptr) - process.since, 0);
        return Json::object({{"name", process.name},
                             {"pid", process.pid},
                             {"since", json_moment(process.since, age)}});
    });
}
