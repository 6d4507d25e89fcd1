#include "web_service/api_directory.h"

#include <climits>
#include <cstdint>
#include <ctime>

#include "support/aes.h"
#include "support/base64.h"
#include "support/md5.h"
#include "support/utf.h"

namespace tpcsdk {
namespace {

// The cache's cipher key. It is the same for every installation and must never
// change: entries written under another key fail their checks and are fetched again.
constexpr std::uint8_t kCacheKey[AES::kBlockSize] = {0xc5, 0xcd, 0x76, 0x53, 0x41, 0xdf, 0x69, 0x32,
                                                     0x3d, 0x03, 0x95, 0x96, 0x70, 0x73, 0xae, 0x54};

constexpr double kLifetimeSeconds = 86400.0;

// The text of a JSON scalar; false for an array or an object.
bool ScalarText(const Json::Value& v, std::string& out) {
  if (v.isArray() || v.isObject()) return false;
  out = v.isNull() ? std::string() : v.asString();
  return true;
}

// The bytes up to the first zero byte.
std::string UpToZero(const std::string& s) { return s.substr(0, s.find('\0')); }

int LeadingNumber(const std::string& digits) {
  int value = 0;
  for (size_t i = 0; i < digits.size() && i < 9; ++i) {
    if (digits[i] < '0' || digits[i] > '9') break;
    value = value * 10 + (digits[i] - '0');
  }
  return value;
}

// Which calendar field a character position of a time text belongs to.
int FieldOf(size_t position) {
  if (position <= 3) return 0;
  if (position <= 6) return 1;
  if (position <= 9) return 2;
  if (position <= 13) return 3;
  if (position <= 16) return 4;
  return 5;
}

bool IsTimeSeparator(char c) { return c == ' ' || c == '-' || c == ':'; }

std::time_t ToTime(const std::string (&fields)[6]) {
  std::tm t{};
  t.tm_year = LeadingNumber(fields[0]) - 1900;
  t.tm_mon = LeadingNumber(fields[1]) - 1;
  t.tm_mday = LeadingNumber(fields[2]);
  t.tm_hour = LeadingNumber(fields[3]);
  t.tm_min = LeadingNumber(fields[4]);
  t.tm_sec = LeadingNumber(fields[5]);
  t.tm_isdst = 0;
  return std::mktime(&t);
}

bool IsEmptyJson(const Json::Value& v) {
  return v.isNull() || ((v.isArray() || v.isObject()) && v.size() == 0);
}

}  // namespace

bool IsCacheFresh(std::string_view cache_time, std::string_view now) {
  std::string written[6], current[6];
  for (size_t i = 0; i < cache_time.size(); ++i) {
    const int field = FieldOf(i);
    if (!IsTimeSeparator(cache_time[i])) written[field] += cache_time[i];
    if (i < now.size() && !IsTimeSeparator(now[i])) current[field] += now[i];
  }
  return std::difftime(ToTime(current), ToTime(written)) < kLifetimeSeconds;
}

std::string ReadCacheRecord(std::string_view encoded, const std::function<std::string()>& now,
                            Json::Value* api_out) {
  if (encoded.size() > static_cast<size_t>(INT32_MAX)) return std::string();
  std::string record = Base64Decode(encoded.data(), static_cast<std::int32_t>(encoded.size()));
  if (record.size() < static_cast<size_t>(AES::kBlockSize)) return std::string();
  const AES aes(kCacheKey);
  aes.Decipher(reinterpret_cast<std::uint8_t*>(&record[0]));
  record = UpToZero(record);

  Json::Value root;
  Json::Reader reader;
  if (record.empty() || !reader.parse(record, root, false) || !root.isObject()) return std::string();

  const Json::Value& api = root["api"];
  const std::string api_text = Json::FastWriter().write(api);
  std::string md5, stored_host, cache_time;
  if (!ScalarText(root["md5"], md5) || !ScalarText(root["host"], stored_host)) return std::string();
  if (api_text.empty() || md5.empty() || stored_host.empty()) return std::string();
  if (Md5Hex(api_text) != md5) return std::string();
  if (api.isObject() && !ScalarText(api["cacheTime"], cache_time)) return std::string();
  if (!IsCacheFresh(cache_time, now ? now() : std::string())) return std::string();
  if (api_out) *api_out = std::move(root["api"]);
  return api_text;
}

std::string WriteCacheRecord(std::u16string_view host, const std::string& text, const std::string& now) {
  Json::Value root;
  Json::Reader reader;
  if (text.empty() || !reader.parse(text, root, false) || !root.isObject()) return std::string();
  root["cacheTime"] = now;
  Json::FastWriter writer;
  const std::string api_text = writer.write(root);
  const std::string md5 = Md5Hex(api_text);
  if (md5.empty()) return std::string();

  Json::Value record;
  record["md5"] = md5;
  record["api"] = root;
  record["host"] = Utf16ToUtf8(host);
  std::string record_text = writer.write(record);
  if (record_text.size() < static_cast<size_t>(AES::kBlockSize)) return std::string();
  const AES aes(kCacheKey);
  aes.Encipher(reinterpret_cast<std::uint8_t*>(&record_text[0]));

  // A zero byte produced by the cipher cuts the record short; the next read rejects it.
  const std::string kept = UpToZero(record_text);
  if (kept.size() > static_cast<size_t>(INT32_MAX)) return std::string();
  return Base64Encode(kept.data(), static_cast<std::int32_t>(kept.size()));
}

void LoadApiTable(ApiTable& table, const std::u16string& prefix, const Json::Value& value) {
  if (!value.isObject()) return;
  for (auto it = value.begin(); it != value.end(); ++it) {
    const Json::Value& member = *it;
    // A member that is not a string has no URL to give.
    const std::string url = member.isConvertibleTo(Json::stringValue) ? member.asString() : "";
    table[prefix + u"@" + Utf8ToUtf16(it.name())] = Utf8ToUtf16(url);
  }
}

ApiDirectoryStatus ReadApiDirectory(const std::string& text, ApiTable& table) {
  Json::Value root;
  Json::Reader reader;
  if (!reader.parse(text, root)) return ApiDirectoryStatus::kNotJson;
  return ReadApiDirectory(root, table);
}

ApiDirectoryStatus ReadApiDirectory(const Json::Value& root, ApiTable& table) {
  table.clear();
  const Json::Value url = root.isObject() ? root["url"] : Json::Value();
  LoadApiTable(table, u"url", url);
  const Json::Value size = root.isObject() ? root["size"] : Json::Value();
  const int64_t count = size.isConvertibleTo(Json::intValue) ? size.asInt() : 0;
  if (count != static_cast<int64_t>(table.size())) {
    table.clear();
    return ApiDirectoryStatus::kSizeMismatch;
  }
  const Json::Value tws = root.isObject() ? root["twsConfig"] : Json::Value();
  if (IsEmptyJson(tws)) return ApiDirectoryStatus::kNoTwsConfig;
  if (Json::FastWriter().write(tws).empty()) return ApiDirectoryStatus::kEmptyTwsConfig;
  return ApiDirectoryStatus::kOk;
}

}  // namespace tpcsdk
