#include "json_lines.h"

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

#include "ctl/rows.h"
#include "owned_json.h"

namespace {

constexpr std::string_view DIGITS =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::string to_base64(std::string_view bytes) {
    std::string text;
    for (std::size_t at = 0; at < bytes.size(); at += 3) {
        const std::string_view three = bytes.substr(at, 3);
        std::uint32_t bits = 0;
        for (std::size_t n = 0; n < 3; ++n) {
            bits = bits << 8U | (n < three.size() ? static_cast<unsigned char>(three[n]) : 0U);
        }
        for (std::size_t n = 0; n < 4; ++n) {
            text += n <= three.size() ? DIGITS[bits >> (18 - 6 * n) & 63U] : '=';
        }
    }
    return text;
}

std::optional<std::string> from_base64(std::string_view text) {
    if (text.size() % 4 != 0) {
        return std::nullopt;
    }
    std::string bytes;
    for (std::size_t at = 0; at < text.size(); at += 4) {
        std::string_view four = text.substr(at, 4);
        const bool last = at + 4 == text.size();
        while (last && four.size() > 2 && four.ends_with('=')) {
            four.remove_suffix(1);
        }
        std::uint32_t bits = 0;
        for (std::size_t n = 0; n < 4; ++n) {
            const std::size_t digit = n < four.size() ? DIGITS.find(four[n]) : 0;
            if (digit == std::string_view::npos) {
                return std::nullopt;
            }
            bits = bits << 6U | static_cast<std::uint32_t>(digit);
        }
        for (std::size_t n = 0; n + 1 < four.size(); ++n) {
            bytes += static_cast<char>(bits >> (16 - 8 * n) & 255U);
        }
    }
    return bytes;
}

Json::Member member_of(const std::string& name, const std::string& text) {
    return is_utf8(text) ? Json::Member{name, text}
                         : Json::Member{name + "_base64", to_base64(text)};
}

std::optional<std::string> text_in(json_object* object, const std::string& name) {
    json_object* member = nullptr;
    if (!json_object_object_get_ex(object, name.c_str(), &member) ||
        !json_object_is_type(member, json_type_string)) {
        return std::nullopt;
    }
    return std::string(json_object_get_string(member),
                       static_cast<std::size_t>(json_object_get_string_len(member)));
}

std::optional<std::string> bytes_in(json_object* object, const std::string& name) {
    if (auto text = text_in(object, name)) {
        return text;
    }
    const auto coded = text_in(object, name + "_base64");
    return coded ? from_base64(*coded) : std::nullopt;
}

}  // namespace

std::string to_json_line(const StoredRecord& record) {
    return Json::object({member_of("key", record.key), member_of("value", record.value)}).line();
}

std::string from_json_line(const std::string& line, StoredRecord& record) {
    const std::unique_ptr<json_tokener, decltype(&json_tokener_free)> tokener(json_tokener_new(),
                                                                              json_tokener_free);
    const OwnedJson object(
        json_tokener_parse_ex(tokener.get(), line.data(), static_cast<int>(line.size())));
    if (!object || !json_object_is_type(object.get(), json_type_object)) {
        return "is no JSON object";
    }
    if (line.find_first_not_of(" \t\r", json_tokener_get_parse_end(tokener.get())) != line.npos) {
        return "has more than one JSON object";
    }
    auto key = bytes_in(object.get(), "key");
    auto value = bytes_in(object.get(), "value");
    if (!key || !value) {
        return fmt::format("has no text \"{}\"", key ? "value" : "key");
    }
    record = {*key, *value};
    return "";
}
