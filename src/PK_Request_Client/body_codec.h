// The text form in which request and reply bodies travel: three bytes in four characters of a
// 64-character alphabet. The tails are this protocol's own and not those of standard base64:
// the last one or two bytes keep their low bits at the low end of the last index.
//
// Pure functions; any thread.
#pragma once

#include <string>
#include <string_view>

inline constexpr std::string_view BODY_ALPHABET =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// `text` in encoded form; always a multiple of four characters.
std::string encode_body(std::string_view text);

// The bytes of an encoded text. A group with a character outside the alphabet, or with "=" in
// another place than at its end, yields nothing, and neither do up to three characters at the end.
std::string decode_body(std::string_view encoded);
