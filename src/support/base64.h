// Base64 in the form the API directory cache file uses: the standard alphabet, a
// CR LF after every 76 characters of output, and a lenient decoder.
#pragma once
#include <cstdint>
#include <string>

namespace tpcsdk {

// Encodes `length` bytes. After every 76 characters of group output a "\r\n" is
// appended, so an input whose length is a multiple of 57 ends in "\r\n"; the final
// "=" padding does not count towards a line. A null pointer or a length below 1
// gives an empty text.
std::string Base64Encode(const void* bytes, std::int32_t length);

// Decodes `length` characters. A byte outside the alphabet (CR, LF, "=", anything
// else) is stepped over where a group would start. Inside a group only the first
// character is checked: the others count as 0 when they are not in the alphabet, a
// "=" in third or fourth place ends the group early, and the group still counts
// four characters against `length`, so the read position falls behind the count
// after padding. A group cut short by `length` reads the missing characters as
// NUL, as if the text were terminated there; nothing past `length` is read.
// There is no error result: bad input gives bad output.
std::string Base64Decode(const char* text, std::int32_t length);

}  // namespace tpcsdk
