#include "operations/op_support.h"

#include <algorithm>
#include <string>

#include "support/out_buffer.h"
#include "support/utf.h"

namespace tpcsdk::ops {

std::string CompactJson(const Json::Value& value) {
  Json::FastWriter writer;  // compact form, ends in one line feed
  return writer.write(value);
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
