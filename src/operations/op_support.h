// What the service operations share: reading members of a reply without throwing,
// building request bodies from the host's wide texts, the compact JSON text that
// goes on the wire and to the host, and handing texts out through out buffers.
#pragma once
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <json/json.h>

#include "tpcsdk/tpcsdk.h"

namespace tpcsdk::ops {

// The compact writer's text of value: no indentation, one line feed at its end.
std::string CompactJson(const Json::Value& value);

// A record of the upload operations: one JSON object of named texts and numbers (and
// the odd nested value), written straight from the host's wide texts into the compact
// text CompactJson gives for the same members. A name given twice keeps its last value.
class FlatRecord {
 public:
  // A wide host text; null goes out as "". Names are string literals.
  void Text(std::string_view name, TDC_LPCWSTR text);
  void Number(std::string_view name, int64_t value);
  void Value(std::string_view name, const Json::Value& value);
  // The compact text: members in name order, one line feed at the end.
  std::string Compact() const;

 private:
  // A member's name and where its JSON text lies in values_.
  struct Member {
    std::string_view name;
    size_t begin, end;
  };
  // Starts the member's text at the end of values_ (a name given before leaves its
  // old text unused); Close marks where it ends.
  void Open(std::string_view name);
  void Close() { members_.back().end = values_.size(); }
  std::vector<Member> members_;
  std::string values_;  // every member's JSON text, one after another
};

// A JSON emptiness test: null, or an array or object with no member.
bool IsEmptyJson(const Json::Value& value);

// The member `name` of an object; a null value for anything else. Never adds a member
// and never throws, whatever the type of value.
const Json::Value& Member(const Json::Value& value, const char* name);

// Member readers that never throw: a value of another type reads as 0, false or "".
int32_t JsonInt(const Json::Value& value);
bool JsonBool(const Json::Value& value);
std::string JsonText(const Json::Value& value);

// Element 0 of data when data is an array whose first element is an object; null
// otherwise (the shape every record reply shares).
const Json::Value* FirstRecord(const Json::Value& data);

// A wide host text as UTF-8; "" for null.
std::string Utf8Arg(TDC_LPCWSTR text);
// A JSON string made from a wide host text (through UTF-8); "" for null.
Json::Value WideJson(TDC_LPCWSTR text);

bool IsEmptyText(const char* text);
bool IsEmptyWide(TDC_LPCWSTR text);

// Stores a new copy of text through out; false (out untouched) when memory ran out.
bool GiveText(char** out, std::string_view text);
bool GiveWide(TDC_LPWSTR* out, std::u16string_view text);

// Uses a stored URL as a format string: each "%s" takes the next argument in order
// (an empty text once they run out) and "%%" gives "%". Anything else stays.
std::u16string FormatUrl(std::u16string_view format, std::initializer_list<std::u16string_view> args);

bool RetIn(int32_t ret, std::initializer_list<int32_t> set);

}  // namespace tpcsdk::ops
