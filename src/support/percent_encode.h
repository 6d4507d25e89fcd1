// Percent encoding of a byte string for a URL query value.
#pragma once
#include <string>
#include <string_view>

namespace tpcsdk {

// Copies "a"-"z", "A"-"Z", "0"-"9" and the eleven characters $ - _ . + ! * ' ( ) ,
// as they are; every other byte, 0x80 and above included, becomes "%" and two
// upper-case hexadecimal digits. A blank gives %20 and "+" stays "+".
std::string PercentEncode(std::string_view text);

}  // namespace tpcsdk
