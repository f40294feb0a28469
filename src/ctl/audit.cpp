#include "audit.h"

#include <fmt/format.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

#include "characters.h"
#include "log.h"

namespace {

constexpr std::size_t MOST_OF_VALUE = 80;
constexpr std::size_t MOST_OF_NAME = 40;

std::string name_of(uid_t user) {
    const passwd* entry = getpwuid(user);
    return entry != nullptr ? entry->pw_name : fmt::format("uid {}", user);
}

// Who logged in, whatever user that one is by now; without a login, as in a timer unit, the user
// who called sudo, or whose process this is.
std::string operator_name() {
    constexpr uid_t NO_LOGIN = static_cast<uid_t>(-1);
    uid_t login = NO_LOGIN;
    if (std::ifstream("/proc/self/loginuid") >> login && login != NO_LOGIN) {
        return name_of(login);
    }
    const char* caller = std::getenv("SUDO_USER");
    return caller != nullptr && *caller != '\0' ? caller : name_of(getuid());
}

}  // namespace

void log_change(const std::string& done, const std::string& value) {
    std::string text = fmt::format("{}{} by {}", AUDIT_START, done,
                                   shortened(escape(operator_name()), MOST_OF_NAME));
    if (!value.empty()) {
        text += ": " + shortened(escape(value), MOST_OF_VALUE);
    }
    write_log(LOG_INFO, "%s", text.c_str());
}
