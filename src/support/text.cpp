#include "support/text.h"

namespace tpcsdk {
namespace {

bool IsBlank(char16_t c) { return c == u' ' || (c >= u'\t' && c <= u'\r'); }

template <typename Char>
Char FoldAscii(Char c) {
  return (c >= 'A' && c <= 'Z') ? static_cast<Char>(c + ('a' - 'A')) : c;
}

template <typename View>
bool EqualsFolded(View a, View b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (FoldAscii(a[i]) != FoldAscii(b[i])) return false;
  return true;
}

}  // namespace

std::u16string TrimText(std::u16string_view s) {
  size_t b = 0, e = s.size();
  while (b < e && IsBlank(s[b])) ++b;
  while (e > b && IsBlank(s[e - 1])) --e;
  return std::u16string(s.substr(b, e - b));
}

bool EqualsNoCase(std::u16string_view a, std::u16string_view b) { return EqualsFolded(a, b); }
bool EqualsNoCase(std::string_view a, std::string_view b) { return EqualsFolded(a, b); }

int32_t TextToInt(std::u16string_view s) {
  size_t i = 0;
  bool negative = false;
  if (i < s.size() && (s[i] == u'+' || s[i] == u'-')) negative = s[i++] == u'-';
  uint32_t value = 0;
  for (; i < s.size() && s[i] >= u'0' && s[i] <= u'9'; ++i) value = value * 10u + (s[i] - u'0');
  if (negative) value = 0u - value;
  return static_cast<int32_t>(value);
}

}  // namespace tpcsdk
