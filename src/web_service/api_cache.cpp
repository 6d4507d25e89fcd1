#include "web_service/api_cache.h"

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "os/clock.h"
#include "os/http.h"
#include "os/paths.h"
#include "platform/diagnostic_log.h"
#include "platform/product_identity.h"
#include "support/utf.h"
#include "web_service/api_directory.h"

namespace tpcsdk {
namespace {

constexpr size_t kReadPiece = 0x7FF;
constexpr std::uint32_t kHostComponentLimit = 1024;  // characters, terminator included

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
  const std::string api_text = ReadCacheRecord(encoded, now_, api_out);
  if (api_text.empty()) return reject();
  std::fclose(file);
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

  const std::string encoded = WriteCacheRecord(host, text, now_());
  if (encoded.empty()) return fail();
  if (std::fwrite(encoded.data(), encoded.size(), 1, file) != 1) return fail();

  std::fclose(file);
  if (log_) log_->Write("Set Cache Api Success");
}

}  // namespace tpcsdk
