// The small text operations the library shares: trimming, comparison without regard
// to the case of ASCII letters, and the integer value of a text.
#pragma once
#include <cstdint>
#include <string>
#include <string_view>

namespace tpcsdk {

// Removes blanks, tabs, line breaks, vertical tabs and form feeds from both ends.
std::u16string TrimText(std::u16string_view s);

// Compares two texts, taking ASCII letters of either case as equal; other characters
// must match exactly.
bool EqualsNoCase(std::u16string_view a, std::u16string_view b);
bool EqualsNoCase(std::string_view a, std::string_view b);

// The decimal value of a text: an optional sign, then digits up to the first other
// character. Empty text and text that doesn't start with a number give 0. The value
// wraps in 32 bits rather than overflowing.
int32_t TextToInt(std::u16string_view s);

}  // namespace tpcsdk
