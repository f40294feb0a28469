#include "message_parser.h"

#include <vector>

namespace {

using Arguments = decltype(ParsedMessage::arguments);

// A message's format, taken apart.
struct Pattern {
    const Message* message = nullptr;
    std::string_view beginning;  // before the first argument
    std::size_t count = 0;       // of arguments
    struct Argument {
        bool is_number = false;
        std::string_view end;  // what follows it; empty at the end of the format
    };
    std::array<Argument, Arguments{}.size()> arguments{};
};

// Takes what comes before the first conversion off a format.
constexpr std::string_view take_literal(std::string_view& format) {
    const std::string_view conversion = first_conversion(format).text;
    const std::size_t length = conversion.empty()
                                   ? format.size()
                                   : static_cast<std::size_t>(conversion.data() - format.data());
    const std::string_view literal = format.substr(0, length);
    format.remove_prefix(length);
    return literal;
}

// Does not compile for a format with more arguments than ParsedMessage has, or with two of them
// next to each other: nothing would tell where the first one ends.
constexpr Pattern pattern_of(const Message& message) {
    std::string_view format = message.format;
    if (format.ends_with('\n')) {
        format.remove_suffix(1);  // it ends the line of the log
    }
    Pattern pattern{&message, take_literal(format)};
    while (!format.empty()) {
        const Conversion conversion = first_conversion(format);
        format.remove_prefix(conversion.text.size());
        const bool is_last = format.empty();
        const std::string_view end = take_literal(format);
        if (end.empty() && !is_last) {
            throw "two arguments next to each other";
        }
        pattern.arguments.at(pattern.count++) = {!conversion.arguments.ends_with('s'), end};
    }
    return pattern;
}

constexpr auto PATTERNS = [] {
    std::array<Pattern, std::size(MESSAGES)> patterns{};
    for (std::size_t n = 0; n < patterns.size(); ++n) {
        patterns[n] = pattern_of(*MESSAGES[n]);
    }
    return patterns;
}();

bool is_number(std::string_view text) {
    return !text.empty() && text.find_first_not_of("-0123456789ABCDEF") == std::string_view::npos;
}

enum class Match { NONE, CUT_OFF, WHOLE };

Match match(const Pattern& pattern, std::string_view text, Arguments& arguments) {
    if (!text.starts_with(pattern.beginning)) {
        return Match::NONE;
    }
    text.remove_prefix(pattern.beginning.size());
    for (std::size_t n = 0; n < pattern.count; ++n) {
        const auto& [number, literal] = pattern.arguments[n];
        const std::size_t end = literal.empty() ? text.size() : text.find(literal);
        arguments[n] = text.substr(0, end);
        if (number && !is_number(arguments[n])) {
            return Match::NONE;
        }
        if (end == std::string_view::npos) {
            // Without a fixed beginning, only the whole text tells which message it is.
            return pattern.beginning.empty() ? Match::NONE : Match::CUT_OFF;
        }
        text.remove_prefix(end + literal.size());
    }
    return text.empty() ? Match::WHOLE : Match::NONE;
}

// By the character with which they begin, those that begin with an argument at 0: a log may have
// millions of lines.
using PatternsByStart = std::array<std::vector<const Pattern*>, 256>;

const PatternsByStart& patterns_by_start() {
    static const PatternsByStart sorted = [] {
        PatternsByStart patterns;
        for (const Pattern& pattern : PATTERNS) {
            const char start = pattern.beginning.empty() ? '\0' : pattern.beginning.front();
            patterns[static_cast<unsigned char>(start)].push_back(&pattern);
        }
        return patterns;
    }();
    return sorted;
}

// Looks for the line among the patterns that start so. A whole match is preferred to one that is
// cut off. True for a whole match.
bool find_pattern(char start, const LogMessage& line, ParsedMessage& parsed) {
    for (const Pattern* pattern : patterns_by_start()[static_cast<unsigned char>(start)]) {
        if (pattern->message->level != line.level) {
            continue;
        }
        Arguments arguments{};
        const Match found = match(*pattern, line.text, arguments);
        if (found == Match::WHOLE || (found == Match::CUT_OFF && parsed.message == nullptr)) {
            parsed.message = pattern->message;
            parsed.arguments = arguments;
        }
        if (found == Match::WHOLE) {
            return true;
        }
    }
    return false;
}

}  // namespace

ParsedMessage parse_message(const LogMessage& line) {
    ParsedMessage parsed{line.time, line.text};
    if (line.text.empty() || !find_pattern(line.text.front(), line, parsed)) {
        (void)find_pattern('\0', line, parsed);
    }
    parsed.failure = parsed.message == nullptr ? line.level >= LOG_ERROR : parsed.message->failure;
    return parsed;
}
