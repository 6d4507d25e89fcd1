#include "support/utf.h"

namespace tpcsdk {
namespace {

constexpr char32_t kReplacement = 0xFFFD;

void AppendUtf16(std::u16string& out, char32_t cp) {
  if (cp < 0x10000) {
    out.push_back(static_cast<char16_t>(cp));
  } else {
    cp -= 0x10000;
    out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
    out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
  }
}

void AppendUtf8(std::string& out, char32_t cp) {
  if (cp < 0x80) {
    out.push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}

}  // namespace

std::u16string Utf8ToUtf16(std::string_view in) {
  std::u16string out;
  out.reserve(in.size());
  const auto* p = reinterpret_cast<const unsigned char*>(in.data());
  const size_t n = in.size();
  size_t i = 0;
  while (i < n) {
    const unsigned char b = p[i];
    if (b < 0x80) {
      out.push_back(b);
      ++i;
      continue;
    }
    // Lead byte: how many continuation bytes, and the bounds of the second byte
    // that keep the sequence shortest-form and inside U+0000..U+10FFFF minus surrogates.
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
      out.push_back(kReplacement);
      ++i;
      continue;
    }
    size_t j = i + 1;
    bool ok = true;
    for (int k = 0; k < extra; ++k, ++j) {
      if (j >= n) { ok = false; break; }
      const unsigned char c = p[j];
      const unsigned char min = k == 0 ? lo : 0x80, max = k == 0 ? hi : 0xBF;
      if (c < min || c > max) { ok = false; break; }
      cp = (cp << 6) | (c & 0x3F);
    }
    if (ok) {
      AppendUtf16(out, cp);
    } else {
      out.push_back(kReplacement);
    }
    i = j;  // resume at the first byte that did not fit the sequence
  }
  return out;
}

std::string Utf16ToUtf8(std::u16string_view in) {
  std::string out;
  out.reserve(in.size() * 3 / 2 + 1);
  const size_t n = in.size();
  for (size_t i = 0; i < n; ++i) {
    char32_t cp = in[i];
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
    AppendUtf8(out, cp);
  }
  return out;
}

size_t WideLength(const char16_t* s) {
  if (!s) return 0;
  size_t n = 0;
  while (s[n]) ++n;
  return n;
}

}  // namespace tpcsdk
