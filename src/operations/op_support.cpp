#include "operations/op_support.h"

#include <algorithm>
#include <charconv>
#include <string>

#include "support/out_buffer.h"
#include "support/utf.h"

namespace tpcsdk::ops {

namespace {

// The compact text is the JSON library's compact writer's, byte for byte: members in
// key order, no blanks, every character outside ASCII as a \u escape (UTF-16 units),
// text read leniently as UTF-8 the way that writer reads it, and reals as the library
// prints them. It is written here into one buffer, which is several times faster.

void AppendUnitEscape(std::string& out, unsigned unit) {
  static constexpr char kHex[] = "0123456789abcdef";
  const char escape[6] = {'\\', 'u', kHex[(unit >> 12) & 15], kHex[(unit >> 8) & 15],
                          kHex[(unit >> 4) & 15], kHex[unit & 15]};
  out.append(escape, sizeof(escape));
}

// One character from s, read as the library reads UTF-8: the length comes from the
// lead byte alone, the bytes after it are not checked, and a sequence cut short, too
// long for its value, or naming a surrogate, is U+FFFD. s is left on its last byte.
unsigned LenientCodePoint(const char*& s, const char* e) {
  constexpr unsigned kReplacement = 0xFFFD;
  const auto byte = [&](int i) { return static_cast<unsigned>(static_cast<unsigned char>(s[i])); };
  const unsigned first = byte(0);
  if (first < 0x80) return first;
  if (first < 0xE0) {
    if (e - s < 2) return kReplacement;
    const unsigned cp = ((first & 0x1F) << 6) | (byte(1) & 0x3F);
    s += 1;
    return cp < 0x80 ? kReplacement : cp;
  }
  if (first < 0xF0) {
    if (e - s < 3) return kReplacement;
    const unsigned cp = ((first & 0x0F) << 12) | ((byte(1) & 0x3F) << 6) | (byte(2) & 0x3F);
    s += 2;
    if (cp >= 0xD800 && cp <= 0xDFFF) return kReplacement;
    return cp < 0x800 ? kReplacement : cp;
  }
  if (first < 0xF8) {
    if (e - s < 4) return kReplacement;
    const unsigned cp = ((first & 0x07) << 18) | ((byte(1) & 0x3F) << 12) |
                        ((byte(2) & 0x3F) << 6) | (byte(3) & 0x3F);
    s += 3;
    return cp < 0x10000 ? kReplacement : cp;
  }
  return kReplacement;
}

void AppendQuoted(std::string& out, const char* s, const char* e) {
  out.push_back('"');
  while (s < e) {
    const char* run = s;
    while (s < e && static_cast<unsigned char>(*s) >= 0x20 && static_cast<unsigned char>(*s) < 0x80 &&
           *s != '"' && *s != '\\') {
      ++s;
    }
    out.append(run, static_cast<size_t>(s - run));
    if (s == e) break;
    switch (*s) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\b': out += "\\b"; break;
      case '\f': out += "\\f"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default: {
        unsigned cp = LenientCodePoint(s, e);
        if (cp >= 0x20 && cp <= 0x7F) {
          out.push_back(static_cast<char>(cp));
        } else if (cp < 0x10000) {
          AppendUnitEscape(out, cp);
        } else {
          cp -= 0x10000;
          AppendUnitEscape(out, 0xD800 + ((cp >> 10) & 0x3FF));
          AppendUnitEscape(out, 0xDC00 + (cp & 0x3FF));
        }
      }
    }
    ++s;
  }
  out.push_back('"');
}

template <class Number>
void AppendNumber(std::string& out, Number n) {
  char digits[24];
  const auto end = std::to_chars(digits, digits + sizeof(digits), n).ptr;
  out.append(digits, static_cast<size_t>(end - digits));
}

void AppendValue(std::string& out, const Json::Value& value) {
  switch (value.type()) {
    case Json::nullValue: out += "null"; break;
    case Json::intValue: AppendNumber(out, value.asLargestInt()); break;
    case Json::uintValue: AppendNumber(out, value.asLargestUInt()); break;
    case Json::realValue: out += Json::valueToString(value.asDouble()); break;
    case Json::stringValue: {
      const char* begin = nullptr;
      const char* end = nullptr;
      if (value.getString(&begin, &end)) AppendQuoted(out, begin, end);
      break;
    }
    case Json::booleanValue: out += value.asBool() ? "true" : "false"; break;
    case Json::arrayValue: {
      out.push_back('[');
      const Json::ArrayIndex size = value.size();
      for (Json::ArrayIndex i = 0; i < size; ++i) {
        if (i > 0) out.push_back(',');
        AppendValue(out, value[i]);
      }
      out.push_back(']');
      break;
    }
    case Json::objectValue: {
      out.push_back('{');
      for (auto it = value.begin(); it != value.end(); ++it) {
        if (it != value.begin()) out.push_back(',');
        const char* end = nullptr;
        const char* name = it.memberName(&end);
        AppendQuoted(out, name, end);
        out.push_back(':');
        AppendValue(out, *it);
      }
      out.push_back('}');
      break;
    }
  }
}

// A wide text as AppendQuoted writes the same text in UTF-8: ASCII as it stands or
// escaped, a surrogate pair as its two units, a lone surrogate as U+FFFD, any other
// unit as itself.
void AppendQuotedWide(std::string& out, const char16_t* s) {
  out.push_back('"');
  for (; *s; ++s) {
    const char16_t u = *s;
    if (u >= 0x20 && u < 0x80 && u != u'"' && u != u'\\') {
      out.push_back(static_cast<char>(u));
      continue;
    }
    switch (u) {
      case u'"': out += "\\\""; break;
      case u'\\': out += "\\\\"; break;
      case u'\b': out += "\\b"; break;
      case u'\f': out += "\\f"; break;
      case u'\n': out += "\\n"; break;
      case u'\r': out += "\\r"; break;
      case u'\t': out += "\\t"; break;
      default:
        if (u >= 0xD800 && u <= 0xDBFF && s[1] >= 0xDC00 && s[1] <= 0xDFFF) {
          AppendUnitEscape(out, u);
          AppendUnitEscape(out, *++s);
        } else if (u >= 0xD800 && u <= 0xDFFF) {
          AppendUnitEscape(out, 0xFFFD);
        } else {
          AppendUnitEscape(out, u);
        }
    }
  }
  out.push_back('"');
}

}  // namespace

void FlatRecord::Open(std::string_view name) {
  if (members_.empty()) {
    members_.reserve(16);
    values_.reserve(512);
  }
  for (auto it = members_.begin(); it != members_.end(); ++it) {
    if (it->name == name) {
      members_.erase(it);
      break;
    }
  }
  members_.push_back({name, values_.size(), values_.size()});
}

void FlatRecord::Text(std::string_view name, TDC_LPCWSTR text) {
  static const char16_t kEmpty[] = u"";
  Open(name);
  AppendQuotedWide(values_, text ? reinterpret_cast<const char16_t*>(text) : kEmpty);
  Close();
}

void FlatRecord::Number(std::string_view name, int64_t value) {
  Open(name);
  AppendNumber(values_, value);
  Close();
}

void FlatRecord::Value(std::string_view name, const Json::Value& value) {
  Open(name);
  AppendValue(values_, value);
  Close();
}

std::string FlatRecord::Compact() const {
  std::vector<Member> order(members_);
  std::sort(order.begin(), order.end(), [](const Member& a, const Member& b) { return a.name < b.name; });
  std::string out;
  out.reserve(values_.size() + 24 * members_.size() + 3);
  out.push_back('{');
  for (const Member& member : order) {
    if (out.size() > 1) out.push_back(',');
    AppendQuoted(out, member.name.data(), member.name.data() + member.name.size());
    out.push_back(':');
    out.append(values_, member.begin, member.end - member.begin);
  }
  out += "}\n";
  return out;
}

std::string CompactJson(const Json::Value& value) {
  std::string out;
  out.reserve(256);
  AppendValue(out, value);
  out.push_back('\n');
  return out;
}

bool IsEmptyJson(const Json::Value& value) {
  return value.isNull() || ((value.isArray() || value.isObject()) && value.empty());
}

const Json::Value& Member(const Json::Value& value, const char* name) {
  static const Json::Value kNull;
  if (!value.isObject()) return kNull;
  const Json::Value* found = value.find(name, name + std::char_traits<char>::length(name));
  return found ? *found : kNull;
}

int32_t JsonInt(const Json::Value& value) {
  return value.isConvertibleTo(Json::intValue) ? value.asInt() : 0;
}

bool JsonBool(const Json::Value& value) {
  return value.isConvertibleTo(Json::booleanValue) && value.asBool();
}

std::string JsonText(const Json::Value& value) {
  return value.isConvertibleTo(Json::stringValue) ? value.asString() : std::string();
}

const Json::Value* FirstRecord(const Json::Value& data) {
  if (!data.isArray() || data.empty() || !data[0u].isObject()) return nullptr;
  return &data[0u];
}

std::string Utf8Arg(TDC_LPCWSTR text) { return Utf16ToUtf8(WideArg(text)); }

Json::Value WideJson(TDC_LPCWSTR text) { return Json::Value(Utf8Arg(text)); }

bool IsEmptyText(const char* text) { return !text || !*text; }

bool IsEmptyWide(TDC_LPCWSTR text) { return !text || !*text; }

bool GiveText(char** out, std::string_view text) {
  char* block = NewTextBlock(text);
  if (!block) return false;
  *out = block;
  return true;
}

bool GiveWide(TDC_LPWSTR* out, std::u16string_view text) {
  TDC_LPWSTR block = NewWideBlock(text);
  if (!block) return false;
  *out = block;
  return true;
}

std::u16string FormatUrl(std::u16string_view format,
                         std::initializer_list<std::u16string_view> args) {
  std::u16string out;
  out.reserve(format.size() + 64);
  auto next = args.begin();
  for (size_t i = 0; i < format.size(); ++i) {
    const char16_t c = format[i];
    if (c == u'%' && i + 1 < format.size()) {
      if (format[i + 1] == u's') {
        if (next != args.end()) out += *next++;
        ++i;
        continue;
      }
      if (format[i + 1] == u'%') {
        out += u'%';
        ++i;
        continue;
      }
    }
    out += c;
  }
  return out;
}

bool RetIn(int32_t ret, std::initializer_list<int32_t> set) {
  return std::find(set.begin(), set.end(), ret) != set.end();
}

}  // namespace tpcsdk::ops
