#include "events.h"

#include <array>
#include <cstdarg>
#include <cstdio>

#include "spawn.h"

namespace {

constexpr int EVENT_RANGE = 720000;
constexpr int FIXED_22 = 22;  // what these two select is the event system's own business
constexpr int FIXED_0 = 0;

int post_text(int level, int event_code, int error_number, const char* message) {
    std::array<char, 256> command{};
    (void)std::snprintf(command.data(), command.size(), "%s  quorsyncd %d %d %d %d %d %d \"%s\" &",
                        EVENT_TOOL, level, EVENT_RANGE, FIXED_22, FIXED_0, event_code, error_number,
                        message);
    return run_shell(command.data());
}

}  // namespace

int post_event(int level, int event_code, int error_number, const char* format, ...) {
    std::array<char, 128> message{};  // leaves space for the rest of the command
    va_list arguments;
    va_start(arguments, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): a false alarm of the analyzer
    (void)std::vsnprintf(message.data(), message.size(), format, arguments);
    va_end(arguments);
    return post_text(level, event_code, error_number, message.data());
}

int post_event(int level, int event_code, int error_number, std::nullptr_t) {
    return post_text(level, event_code, error_number, "");
}
