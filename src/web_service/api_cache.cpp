#include "web_service/api_cache.h"

#include <json/json.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "os/clock.h"
#include "os/http.h"
#include "os/paths.h"
#include "platform/diagnostic_log.h"
#include "platform/product_identity.h"
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

constexpr size_t kReadPiece = 0x7FF;
constexpr double kLifetimeSeconds = 86400.0;
constexpr std::uint32_t kHostComponentLimit = 1024;  // characters, terminator included

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

// True when the host holds only what a host name may: ASCII letters, digits, "-" and
// ".", with no empty label inside. The entry's file is named by it, so nothing else
// (a separator, "..", an escape left in or decoded by the URL cracking) may reach the
// path. The empty host of a URL that can't be taken apart passes: its entry is ".dat".
bool IsPlainHostName(std::u16string_view host) {
  if (host.find(u"..") != std::u16string_view::npos || (!host.empty() && host.front() == u'.')) return false;
  for (char16_t c : host) {
    const bool letter = (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z');
    const bool digit = c >= u'0' && c <= u'9';
    if (!letter && !digit && c != u'-' && c != u'.') return false;
  }
  return true;
}

void DeleteEntry(const std::u16string& path) {
  if (!os::RemoveFile(path)) os::RemoveFile(path);
}

}  // namespace

std::string NowString() {
  const os::LocalTime t = os::LocalTimeNow();
  char text[32];
  std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d", t.year, t.month, t.day, t.hour, t.minute,
                t.second);
  return text;
}

bool IsCacheFresh(std::string_view cache_time, std::string_view now) {
  std::string written[6], current[6];
  for (size_t i = 0; i < cache_time.size(); ++i) {
    const int field = FieldOf(i);
    if (!IsTimeSeparator(cache_time[i])) written[field] += cache_time[i];
    if (i < now.size() && !IsTimeSeparator(now[i])) current[field] += now[i];
  }
  return std::difftime(ToTime(current), ToTime(written)) < kLifetimeSeconds;
}

std::u16string GetHostNameOfUrl(std::u16string_view url) {
  os::HttpUrlParts parts;
  if (!os::HttpCrackUrl(url, true, &parts, kHostComponentLimit)) return std::u16string();
  return parts.host;
}

ApiCache::ApiCache(std::string app_name, DiagnosticLog* log, std::function<std::string()> now)
    : app_name_(std::move(app_name)), log_(log), now_(now ? std::move(now) : std::function<std::string()>(NowString)) {}

std::u16string ApiCache::EntryPath(std::u16string_view host) const {
  const std::u16string name = GetHostNameOfUrl(host);
  if (!IsPlainHostName(name)) return std::u16string();
  return Utf8ToUtf16(GetCacheFilePath(name, app_name_));
}

// The entry's path, or empty with a log line saying why the host has no entry.
std::u16string ApiCache::CheckedEntryPath(std::u16string_view host) const {
  const std::u16string path = EntryPath(host);
  if (!path.empty() || !log_) return path;
  const std::u16string name = GetHostNameOfUrl(host);
  if (!IsPlainHostName(name))
    log_->Write("Api cache not used: the host name is not a plain host name: %s", Utf16ToUtf8(name).c_str());
  else if (!IsPlainFileName(Utf8ToUtf16(GetAppFolderName(app_name_))))
    log_->Write("Api cache not used: the application name is not a plain folder name: %s", app_name_.c_str());
  return path;
}

std::string ApiCache::GetCacheApi(std::u16string_view host, Json::Value* api_out) const {
  const std::u16string path = CheckedEntryPath(host);
  if (path.empty()) return std::string();
  std::FILE* file = os::OpenStdioFile(path, "r+", true);
  if (!file) return std::string();

  const auto reject = [&]() {
    std::fclose(file);
    DeleteEntry(path);
    return std::string();
  };

  std::fseek(file, 0, SEEK_SET);
  std::string encoded;
  for (;;) {
    char piece[kReadPiece + 1] = {};
    const size_t got = std::fread(piece, 1, kReadPiece, file);
    const void* zero = std::memchr(piece, 0, got);
    encoded.append(piece, zero ? static_cast<size_t>(static_cast<const char*>(zero) - piece) : got);
    if (got < kReadPiece) break;
  }
  if (encoded.size() > static_cast<size_t>(INT32_MAX)) return reject();

  std::string record = Base64Decode(encoded.data(), static_cast<std::int32_t>(encoded.size()));
  if (record.size() < static_cast<size_t>(AES::kBlockSize)) return reject();
  const AES aes(kCacheKey);
  aes.Decipher(reinterpret_cast<std::uint8_t*>(&record[0]));
  record = UpToZero(record);

  Json::Value root;
  Json::Reader reader;
  if (record.empty() || !reader.parse(record, root, false) || !root.isObject()) return reject();

  const Json::Value& api = root["api"];
  const std::string api_text = Json::FastWriter().write(api);
  std::string md5, stored_host, cache_time;
  if (!ScalarText(root["md5"], md5) || !ScalarText(root["host"], stored_host)) return reject();
  if (api_text.empty() || md5.empty() || stored_host.empty()) return reject();
  if (Md5Hex(api_text) != md5) return reject();
  if (api.isObject() && !ScalarText(api["cacheTime"], cache_time)) return reject();
  if (!IsCacheFresh(cache_time, now_())) return reject();

  std::fclose(file);
  if (api_out) *api_out = std::move(root["api"]);
  return api_text;
}

void ApiCache::SetCacheApi(std::u16string_view host, const std::string& text) const {
  const std::u16string path = CheckedEntryPath(host);
  if (path.empty()) return;
  std::FILE* file = os::OpenStdioFile(path, "at+", true);
  if (!file) return;

  const auto fail = [&]() {
    std::fclose(file);
    os::RemoveFile(Utf8ToUtf16(GetCacheMarkerPath(app_name_)));
  };

  Json::Value root;
  Json::Reader reader;
  if (text.empty() || !reader.parse(text, root, false) || !root.isObject()) return fail();
  root["cacheTime"] = now_();
  Json::FastWriter writer;
  const std::string api_text = writer.write(root);
  const std::string md5 = Md5Hex(api_text);
  if (md5.empty()) return fail();

  Json::Value record;
  record["md5"] = md5;
  record["api"] = root;
  record["host"] = Utf16ToUtf8(host);
  std::string record_text = writer.write(record);
  if (record_text.size() < static_cast<size_t>(AES::kBlockSize)) return fail();
  const AES aes(kCacheKey);
  aes.Encipher(reinterpret_cast<std::uint8_t*>(&record_text[0]));

  // A zero byte produced by the cipher cuts the record short; the next read rejects it.
  const std::string kept = UpToZero(record_text);
  if (kept.size() > static_cast<size_t>(INT32_MAX)) return fail();
  const std::string encoded = Base64Encode(kept.data(), static_cast<std::int32_t>(kept.size()));
  if (encoded.empty()) return fail();
  if (std::fwrite(encoded.data(), encoded.size(), 1, file) != 1) return fail();

  std::fclose(file);
  if (log_) log_->Write("Set Cache Api Success");
}

}  // namespace tpcsdk
