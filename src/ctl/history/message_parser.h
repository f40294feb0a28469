// Which message of the daemon a line of its log is, and with which arguments it was logged.
#pragma once

#include <array>
#include <string_view>

#include "log_reader.h"
#include "messages.h"

struct ParsedMessage {
    LogTime time;
    std::string_view text;             // all of it
    const Message* message = nullptr;  // null for a text that is not in the list
    bool failure = false;              // of any other text: whether its level says so

    // As they stand in the text, in the order of the format. A full disk or a newline in an
    // argument cuts a text off anywhere: the last argument is shorter then, and those behind it
    // are empty.
    std::array<std::string_view, 6> arguments{};

    Meaning meaning() const { return message == nullptr ? Meaning::NOTHING : message->meaning; }
};

// The arguments point into the text of `message`.
ParsedMessage parse_message(const LogMessage& message);
