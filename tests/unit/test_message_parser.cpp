#include <string>
#include <tuple>
#include <vector>

#include "ctl/history/message_parser.h"
#include "support.h"

namespace {

// The arguments by which every message is tried out below, by the types of the conversions.
std::string sample(const Conversion& conversion) {
    return conversion.arguments.ends_with('s') ? "some text" : "42";
}

// The message as the daemon logs it, with those arguments.
std::string logged_text(std::string_view format) {
    std::string text;
    while (!format.empty()) {
        const Conversion conversion = first_conversion(format);
        const std::size_t length =
            conversion.text.empty()
                ? format.size()
                : static_cast<std::size_t>(conversion.text.data() - format.data());
        text += format.substr(0, length);
        format.remove_prefix(length + conversion.text.size());
        text += conversion.text.empty() ? "" : sample(conversion);
    }
    text.erase(text.find_last_not_of('\n') + 1);
    return text;
}

ParsedMessage parse(int level, std::string_view text) {
    return parse_message({LogTime{}, level, text});
}

// All that the timeline knows of a message.
auto known(const Message& message) {
    return std::make_tuple(message.meaning, message.failure, message.consequence);
}

TEST(MessageParser, KnowsEveryMessageOfTheDaemonByItsLine) {
    for (const Message* message : MESSAGES) {
        const std::string text = logged_text(message->format);
        const ParsedMessage parsed = parse(message->level, text);
        ASSERT_NE(parsed.message, nullptr) << text;
        EXPECT_EQ(known(*parsed.message), known(*message)) << text;
        EXPECT_EQ(parsed.failure, message->failure);
        EXPECT_EQ(parse(LOG_FATAL, text).message, nullptr) << text;
    }
}

TEST(MessageParser, GivesTheArgumentsBack) {
    const struct {
        int level;
        const char* text;
        const Message* message;
        std::vector<std::string> arguments;
    } rows[] = {
        {LOG_INFO, "data 2: 00:11=a=b %s", &msg::RECORD_RECEIVED, {"2", "00:11", "a=b %s"}},
        {LOG_DEBUG, "beat back to 10.0.0.2 :1#2", &msg::BEAT_BACK, {"10.0.0.2", "1#2"}},
        {LOG_INFO, "serverip:A --add --7", &msg::FETCH_QUEUED, {"A", "add ", "7"}},
        {LOG_ERROR, "a b cannot be put in place:x", &msg::COPY_NOT_PUT_IN_PLACE, {"a b", "x"}},
        // Cut off by a full disk, or by a newline in an argument.
        {LOG_INFO, "data 2: half a k", &msg::RECORD_RECEIVED, {"2", "half a k"}},
        {LOG_INFO, "func:f line7 client_ver", nullptr, {}},
        {LOG_INFO, "func:f line7 client_version:x", &msg::CLIENT_STAMPS, {"f", "7", "x"}},
        {LOG_INFO, "data x: y=z", nullptr, {}},
        {LOG_ERROR, "x cannot be put in", nullptr, {}},
        {LOG_INFO, "become a master host!", nullptr, {}},
    };
    for (const auto& row : rows) {
        const ParsedMessage parsed = parse(row.level, row.text);
        EXPECT_EQ(parsed.message, row.message) << row.text;
        std::vector<std::string> given(parsed.arguments.begin(), parsed.arguments.end());
        while (!given.empty() && given.back().empty()) {
            given.pop_back();
        }
        EXPECT_EQ(given, row.arguments) << row.text;
    }
}

TEST(MessageParser, TakesTheLevelOfAnUnknownTextForIt) {
    EXPECT_TRUE(parse(LOG_ERROR, "of another version").failure);
    EXPECT_FALSE(parse(LOG_INFO, "of another version").failure);
    EXPECT_FALSE(parse(-1, "become a master host").failure);
}

}  // namespace
