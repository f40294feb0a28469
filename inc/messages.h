// The messages of the daemon and its library. Each stands once, in messages.def, as a constant of
// namespace msg: log_message (log.h) logs it, and the operator's tool finds it in the logs.
#pragma once

#include <array>
#include <string_view>

inline constexpr int LOG_DEBUG = 0;
inline constexpr int LOG_INFO = 1;
inline constexpr int LOG_ERROR = 2;
inline constexpr int LOG_FATAL = 3;
inline constexpr std::array<std::string_view, 4> LEVEL_WORDS = {"DEBUG", "INFO", "ERROR", "FATAL"};

// What the timeline of a pair makes of a message. Failures are told there in any case.
enum class Meaning {
    NOTHING,

    // The search for a role; the last of these before the next search tells what it waits for.
    ROLE_SEARCH,  // begins: the value of `ha`
    SERVERS_LISTED,
    NO_SERVERS,
    NO_ADDRESS,
    NO_MASTER,
    PAIR_KNOWN,

    START,  // addresses of master and slave
    MASTER_ROLE,
    SLAVE_ROLE,
    BEAT,  // of a slave: bottle, status
    TAKE_OVER,
    STEP_DOWN,
    STOP,  // of a slave, by SIGTERM

    // Version stamps and data sets.
    BEAT_ANSWERED,  // by the master: the slave's address, stamps
    CONFIG_ASKED_FOR,
    CLIENTS_ASKED_FOR,
    CONFIG_STAMPS,  // function, line, the slave's own stamp, the master's
    CLIENT_STAMPS,
    RECORD_IN,         // kind of the set, key, value
    STAMP_NOT_STORED,  // key of the stamp
    PUSH,              // begins: kind of the set
    RECORD_OUT,        // key, value; also of settings that stay here
    RECORD_LOST,       // it could not be sent
    RECORD_LEFT_OUT,   // it is too long

    // A server's config.db comes to the master.
    FETCH_AHEAD,        // address of the server
    FETCH,              // begins
    FETCH_STEP_FAILED,  // why the fetch under way fails
    FETCH_FAILED,       // its result
    COPY_NOT_REPLACED,  // so that the fetch was in vain: the copy
    FETCH_DONE,
};

struct Message {
    int level;           // LOG_*
    const char* format;  // of printf
    bool failure;        // whatever the level says
    Meaning meaning = Meaning::NOTHING;
    const char* consequence = nullptr;  // what a failure means to the pair, for operators
};

namespace msg {

#define MESSAGE(name, level, format, ...) \
    inline constexpr Message name{level, format, false __VA_OPT__(, ) __VA_ARGS__};
#define FAILURE(name, level, format, ...) \
    inline constexpr Message name{level, format, true __VA_OPT__(, ) __VA_ARGS__};
#include "messages.def"
#undef MESSAGE
#undef FAILURE

}  // namespace msg

// All of them.
inline constexpr const Message* MESSAGES[] = {
#define MESSAGE(name, ...) &msg::name,
#define FAILURE(name, ...) &msg::name,
#include "messages.def"
#undef MESSAGE
#undef FAILURE
};

// A conversion of printf in a format, as "%s", and the types of the arguments that it takes: 'd'
// for int, 'u' for unsigned, 'l' for long, 'z' for std::size_t, 's' for a text.
struct Conversion {
    std::string_view text;
    std::string_view arguments;
};

// The first conversion in `format`; its text is empty when there is none. Its arguments are empty
// where the messages do not use it: add it here then.
constexpr Conversion first_conversion(std::string_view format) {
    constexpr std::array<Conversion, 6> KNOWN = {
        {{"%s", "s"}, {"%d", "d"}, {"%ld", "l"}, {"%zu", "z"}, {"%.*s", "ds"}, {"%08X", "u"}}};
    const std::size_t begin = format.find('%');
    if (begin == std::string_view::npos) {
        return {};
    }
    format.remove_prefix(begin);
    for (const Conversion& known : KNOWN) {
        if (format.starts_with(known.text)) {
            return {format.substr(0, known.text.size()), known.arguments};
        }
    }
    return {format.substr(0, 1), {}};
}

// Whether `format` takes arguments of these types, and no others.
constexpr bool takes_arguments(std::string_view format, std::string_view types) {
    for (Conversion next = first_conversion(format); !next.text.empty();
         next = first_conversion(format)) {
        if (next.arguments.empty() || !types.starts_with(next.arguments)) {
            return false;
        }
        types.remove_prefix(next.arguments.size());
        format.remove_prefix(static_cast<std::size_t>(next.text.data() - format.data()) +
                             next.text.size());
    }
    return types.empty();
}
