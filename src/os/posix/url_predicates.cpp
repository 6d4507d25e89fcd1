// The shell's URL predicates, rebuilt with the same answers for hosts that lack them.
#include "os/paths.h"

namespace tpcsdk::os {
namespace {

bool IsSchemeChar(char16_t c) {
  return (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z') || (c >= u'0' && c <= u'9') ||
         c == u'+' || c == u'-' || c == u'.';
}

char16_t Lower(char16_t c) { return (c >= u'A' && c <= u'Z') ? static_cast<char16_t>(c + 32) : c; }

}  // namespace

bool PathIsUrl(std::u16string_view text) {
  size_t i = 0;
  while (i < text.size() && text[i] != u'\0' && IsSchemeChar(text[i])) ++i;
  return i >= 2 && i < text.size() && text[i] == u':';
}

bool PathIsUnc(std::u16string_view text) {
  return text.size() >= 2 && text[0] == u'\\' && text[1] == u'\\';
}

bool IsFileUrl(std::u16string_view text) {
  static constexpr char16_t kFile[] = u"file:";
  if (text.size() < 5) return false;
  for (size_t i = 0; i < 5; ++i) {
    if (Lower(text[i]) != kFile[i]) return false;
  }
  return true;
}

}  // namespace tpcsdk::os
