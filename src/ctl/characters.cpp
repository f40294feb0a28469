#include "characters.h"

#include <fmt/format.h>
#include <wchar.h>

#include <clocale>
#include <cwchar>
#include <cwctype>

namespace {

// The library's functions for characters work in UTF-8 while one of these exists.
class Utf8Locale {
public:
    Utf8Locale() : before_(uselocale(utf8())) {}
    ~Utf8Locale() { (void)uselocale(before_); }
    Utf8Locale(const Utf8Locale&) = delete;
    Utf8Locale& operator=(const Utf8Locale&) = delete;

private:
    static locale_t utf8() {
        static const locale_t locale = newlocale(LC_CTYPE_MASK, "C.UTF-8", locale_t{});
        return locale;
    }
    locale_t before_;
};

bool turns_direction(wchar_t character) {
    return character == 0x200E || character == 0x200F ||
           (character >= 0x202A && character <= 0x202E) ||
           (character >= 0x2066 && character <= 0x2069);
}

Character first_of_several_bytes(std::string_view text) {
    const Utf8Locale utf8;
    std::mbstate_t state{};
    wchar_t character = 0;
    const std::size_t bytes = std::mbrtowc(&character, text.data(), text.size(), &state);
    if (bytes == 0 || bytes > text.size()) {
        return {1, 1, false, false};  // one of the two error values
    }
    const int columns = wcwidth(character);
    const bool printable = std::iswprint(static_cast<std::wint_t>(character)) != 0 &&
                           columns >= 0 && !turns_direction(character);
    return {bytes, printable ? static_cast<std::size_t>(columns) : 1, true, printable};
}

}  // namespace

Character first_character(std::string_view text) {
    const auto first = static_cast<unsigned char>(text.front());
    if (first >= 0x80) {
        return first_of_several_bytes(text);
    }
    return {1, 1, first != 0, first >= ' ' && first != 0x7F};
}

bool is_utf8(std::string_view text) {
    while (!text.empty()) {
        const Character character = first_character(text);
        if (!character.valid) {
            return false;
        }
        text.remove_prefix(character.bytes);
    }
    return true;
}

std::string escape(std::string_view text) {
    std::string shown;
    while (!text.empty()) {
        const Character character = first_character(text);
        for (const char byte : text.substr(0, character.bytes)) {
            if (!character.printable) {
                shown += fmt::format("\\x{:02x}", static_cast<unsigned char>(byte));
            } else {
                shown += byte == '\\' ? "\\\\" : std::string(1, byte);
            }
        }
        text.remove_prefix(character.bytes);
    }
    return shown;
}

std::size_t columns_of(std::string_view text) {
    std::size_t columns = 0;
    while (!text.empty()) {
        const Character character = first_character(text);
        columns += character.columns;
        text.remove_prefix(character.bytes);
    }
    return columns;
}

std::string shortened(std::string_view text, std::size_t columns) {
    if (columns_of(text) <= columns) {
        return std::string(text);
    }
    std::string kept;
    for (std::size_t left = columns - 3; !text.empty();) {
        const Character character = first_character(text);
        if (character.columns > left) {
            break;
        }
        left -= character.columns;
        kept += text.substr(0, character.bytes);
        text.remove_prefix(character.bytes);
    }
    return kept + "...";
}
