// Texts as the characters that UTF-8 makes of them, for whoever shows them.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

struct Character {
    std::size_t bytes;    // at least 1
    std::size_t columns;  // that it takes on a terminal
    bool valid;           // UTF-8, and no zero byte
    bool printable;       // and neither a control character nor one that turns the text's direction
};

// The first one of a text that is not empty; one byte of what is not UTF-8.
Character first_character(std::string_view text);

// Whether all of it is valid.
bool is_utf8(std::string_view text);

// `text` with a backslash as "\\" and every byte of what cannot be printed as "\xNN": on one line,
// safe for a terminal, and to be told back.
std::string escape(std::string_view text);

// How wide an escape()d text is on a terminal.
std::size_t columns_of(std::string_view text);

// As much of an escape()d text as fits into so many columns, with "..." at its end if it is cut.
std::string shortened(std::string_view text, std::size_t columns);
