#include "support/utf.h"

namespace tpcsdk {
namespace {

constexpr char32_t kReplacement = 0xFFFD;

// Writes the code point's UTF-8 bytes at o; the end of what it wrote.
char* AppendUtf8(char* o, char32_t cp) {
  if (cp < 0x80) {
    *o++ = static_cast<char>(cp);
  } else if (cp < 0x800) {
    *o++ = static_cast<char>(0xC0 | (cp >> 6));
    *o++ = static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    *o++ = static_cast<char>(0xE0 | (cp >> 12));
    *o++ = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    *o++ = static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    *o++ = static_cast<char>(0xF0 | (cp >> 18));
    *o++ = static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    *o++ = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    *o++ = static_cast<char>(0x80 | (cp & 0x3F));
  }
  return o;
}

}  // namespace

namespace {

// One UTF-8 sequence from p[i], a lead byte of 0x80 or more: its code point, or
// U+FFFD for a bad subpart; i moves to the first byte that did not fit the sequence.
char32_t DecodeSequence(const unsigned char* p, size_t n, size_t& i) {
  const unsigned char b = p[i];
  // How many continuation bytes, and the bounds of the second byte that keep the
  // sequence shortest-form and inside U+0000..U+10FFFF minus surrogates.
  int extra;
  unsigned char lo = 0x80, hi = 0xBF;
  char32_t cp;
  if (b >= 0xC2 && b <= 0xDF) {
    extra = 1; cp = b & 0x1F;
  } else if (b >= 0xE0 && b <= 0xEF) {
    extra = 2; cp = b & 0x0F;
    if (b == 0xE0) lo = 0xA0;
    if (b == 0xED) hi = 0x9F;
  } else if (b >= 0xF0 && b <= 0xF4) {
    extra = 3; cp = b & 0x07;
    if (b == 0xF0) lo = 0x90;
    if (b == 0xF4) hi = 0x8F;
  } else {
    ++i;
    return kReplacement;
  }
  size_t j = i + 1;
  for (int k = 0; k < extra; ++k, ++j) {
    const unsigned char min = k == 0 ? lo : 0x80, max = k == 0 ? hi : 0xBF;
    if (j >= n || p[j] < min || p[j] > max) {
      i = j;
      return kReplacement;
    }
    cp = (cp << 6) | (p[j] & 0x3F);
  }
  i = j;
  return cp;
}

}  // namespace

// Both conversions write into room for the longest result and cut it to size at the
// end; runs of ASCII, the common case, take one step per character.
std::u16string Utf8ToUtf16(std::string_view in) {
  std::u16string out(in.size(), u'\0');  // never more units than bytes
  char16_t* o = out.data();
  const auto* p = reinterpret_cast<const unsigned char*>(in.data());
  const size_t n = in.size();
  size_t i = 0;
  while (i < n) {
    if (p[i] < 0x80) {
      *o++ = p[i++];
      continue;
    }
    char32_t cp = DecodeSequence(p, n, i);
    if (cp >= 0x10000) {
      cp -= 0x10000;
      *o++ = static_cast<char16_t>(0xD800 + (cp >> 10));
      *o++ = static_cast<char16_t>(0xDC00 + (cp & 0x3FF));
    } else {
      *o++ = static_cast<char16_t>(cp);
    }
  }
  out.resize(static_cast<size_t>(o - out.data()));
  return out;
}

std::string Utf16ToUtf8(std::u16string_view in) {
  std::string out(in.size() * 3, '\0');  // at most three bytes per unit
  char* o = out.data();
  const size_t n = in.size();
  for (size_t i = 0; i < n; ++i) {
    char32_t cp = in[i];
    if (cp < 0x80) {
      *o++ = static_cast<char>(cp);
      continue;
    }
    if (cp >= 0xD800 && cp <= 0xDBFF) {
      if (i + 1 < n && in[i + 1] >= 0xDC00 && in[i + 1] <= 0xDFFF) {
        cp = 0x10000 + ((cp - 0xD800) << 10) + (in[i + 1] - 0xDC00);
        ++i;
      } else {
        cp = kReplacement;
      }
    } else if (cp >= 0xDC00 && cp <= 0xDFFF) {
      cp = kReplacement;
    }
    o = AppendUtf8(o, cp);
  }
  out.resize(static_cast<size_t>(o - out.data()));
  return out;
}

std::string ValidUtf8(std::string_view in) {
  const auto* p = reinterpret_cast<const unsigned char*>(in.data());
  const size_t n = in.size();
  size_t i = 0;
  while (i < n) {
    if (p[i] < 0x80) {
      ++i;
      continue;
    }
    size_t j = i;
    if (DecodeSequence(p, n, j) == kReplacement && !(j - i == 3 && p[i] == 0xEF)) break;
    i = j;
  }
  if (i == n) return std::string(in);
  // Something is not valid: the whole text goes the long way.
  return Utf16ToUtf8(Utf8ToUtf16(in));
}

size_t WideLength(const char16_t* s) {
  if (!s) return 0;
  size_t n = 0;
  while (s[n]) ++n;
  return n;
}

}  // namespace tpcsdk
