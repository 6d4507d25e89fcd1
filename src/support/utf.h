// UTF-8 <-> UTF-16 conversion: the only place in the library that converts text.
#pragma once
#include <string>
#include <string_view>

namespace tpcsdk {

// Converts UTF-8 to UTF-16. Invalid or truncated sequences become U+FFFD, one per
// maximal bad subpart, so no input can make the conversion fail or read out of range.
std::u16string Utf8ToUtf16(std::string_view in);

// Converts UTF-16 to UTF-8. An unpaired surrogate becomes U+FFFD.
std::string Utf16ToUtf8(std::u16string_view in);

// The UTF-8 text as it comes back from a trip through UTF-16: valid text unchanged,
// each bad subpart of invalid text as U+FFFD.
std::string ValidUtf8(std::string_view in);

// Length of a NUL-terminated 16-bit string; 0 for null.
size_t WideLength(const char16_t* s);

}  // namespace tpcsdk
