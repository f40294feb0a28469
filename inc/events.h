// Reports to the site's event system through its tool.
#pragma once

#include <cstddef>

inline constexpr const char* EVENT_TOOL = "/usr/local/bin/evpost_ex";

inline constexpr int EVENT_NOTICE = 0;  // levels
inline constexpr int EVENT_ERROR = 2;

inline constexpr int EVENT_ROLE_FAILED = 720001;   // no role could be decided
inline constexpr int EVENT_SEND_FAILED = 720003;   // the end of a client push could not be sent
inline constexpr int EVENT_TOOK_OVER = 720007;     // this slave runs the boot services now
inline constexpr int EVENT_STEPPED_DOWN = 720008;  // this slave gave them back
inline constexpr int EVENT_UNKNOWN_TYPE = 720010;  // a message of unknown type arrived

// Starts the event tool in the background and returns at once; whether the event arrives, or the
// tool exists at all, is not known. `error_number` is an errno. The message, at most 127
// characters, goes into a shell command between double quotes: it must hold no shell character.
// Returns what the shell call returned. Any thread; logs nothing.
int post_event(int level, int event_code, int error_number, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

// The same without a message.
int post_event(int level, int event_code, int error_number, std::nullptr_t);
