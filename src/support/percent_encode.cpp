#include "support/percent_encode.h"

namespace tpcsdk {
namespace {

bool KeepsAsIs(unsigned char c) {
  if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) return true;
  switch (c) {
    case '$': case '-': case '_': case '.': case '+': case '!':
    case '*': case '\'': case '(': case ')': case ',':
      return true;
    default:
      return false;
  }
}

}  // namespace

std::string PercentEncode(std::string_view text) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size() * 3);
  for (const char ch : text) {
    const auto c = static_cast<unsigned char>(ch);
    if (KeepsAsIs(c)) {
      out.push_back(ch);
    } else {
      out.push_back('%');
      out.push_back(kHex[c >> 4]);
      out.push_back(kHex[c & 15]);
    }
  }
  return out;
}

}  // namespace tpcsdk
