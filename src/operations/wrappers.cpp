// Wrapper documents: ask the service for the wrapper settings, compare their update
// time with the one stored in the registry, look which files are on disk, and fetch
// what is needed. The operation reports nothing: a call that fails leaves a missing
// file behind, and the next call finds it and starts over.
#include "operations/wrappers.h"

#include <cmath>
#include <cstdint>

#include <json/json.h>

#include "http_transport/file_download.h"
#include "operations/op_support.h"
#include "os/date_text.h"
#include "os/paths.h"
#include "os/registry.h"
#include "platform/product_identity.h"
#include "support/guard.h"
#include "support/utf.h"
#include "web_service/api_cache.h"
#include "web_service/tetherdoc_server.h"

namespace tpcsdk {

namespace wrappers {

namespace {

// Half a second in days: dates closer than this are the same.
constexpr double kHalfSecond = 1.0 / 172800.0;

// An OLE date on a scale that grows with time: before 1899-12-30 the fraction counts
// the other way, so it is mirrored within its day.
double Linear(double date) {
  if (date > -kHalfSecond) return date;
  const double whole = std::trunc(date);
  return whole - (date - whole);
}

bool IsChineseLanguage(std::string_view al) {
  constexpr std::string_view kChinese = "zh-cn";
  if (al.size() != kChinese.size()) return false;
  for (size_t i = 0; i < al.size(); ++i) {
    const char c = (al[i] >= 'A' && al[i] <= 'Z') ? static_cast<char>(al[i] + 32) : al[i];
    if (c != kChinese[i]) return false;
  }
  return true;
}

}  // namespace

double ParseUpdateTime(std::u16string_view text) {
  text = text.substr(0, text.find(u'\0'));
  double date = 0;
  switch (os::DateFromText(text, &date)) {
    case os::DateTextStatus::kOk: return date;
    case os::DateTextStatus::kTypeMismatch: return 0.0;
    default: return -1.0;
  }
}

bool SameUpdateTime(double a, double b) {
  double difference = Linear(a) - Linear(b);
  difference += difference >= 0 ? kHalfSecond : -kHalfSecond;
  // Whole seconds of the difference, cut toward zero; dates too far apart for an
  // integer are plainly different.
  const double seconds = difference * 86400.0;
  return std::isfinite(seconds) && std::trunc(seconds) == 0.0;
}

std::u16string UpdateTimeKey(std::string_view an, std::string_view av,
                             std::u16string_view host_name, bool for_writing) {
  const size_t dot = av.find('.');
  std::u16string key = u"SOFTWARE\\Tarvo Software\\";
  key += Utf8ToUtf16(an);
  key += u' ';
  if (dot != std::string_view::npos) key += Utf8ToUtf16(av.substr(0, dot));
  key += u".0";
  key += for_writing ? u"\\Plugins\\" : u"\\plugins\\";
  key += host_name;
  if (for_writing) key += u'\\';
  return key;
}

std::u16string ReadWrapperUpdateTime(std::string_view an, std::string_view av,
                                     std::u16string_view host_name) {
  std::u16string text;
  os::RegKey key = os::OpenRegKey(os::RegRoot::kCurrentUser, UpdateTimeKey(an, av, host_name, false));
  if (!key) return text;
  if (!os::QueryRegString(key, kUpdateTimeValue, text)) text.clear();
  os::CloseRegKey(key);
  return text;
}

void WriteWrapperUpdateTime(std::string_view an, std::string_view av,
                            std::u16string_view host_name, std::u16string_view text) {
  os::RegKey key = os::CreateRegKey(os::RegRoot::kCurrentUser, UpdateTimeKey(an, av, host_name, true));
  if (!key) return;
  os::SetRegString(key, kUpdateTimeValue, text);
  os::CloseRegKey(key);
}

std::u16string WrapperFileName(WrapperFile file, std::string_view al) {
  const bool cn = IsChineseLanguage(al);
  switch (file) {
    case WrapperFile::kProtect: return cn ? u"ProtectWrapper_cn.pdf" : u"ProtectWrapper_en.pdf";
    case WrapperFile::kRequestPermission:
      return cn ? u"ReqPermWrapper_cn.pdf" : u"ReqPermWrapper_en.pdf";
    case WrapperFile::kRequestPermissionLicense:
      return cn ? u"ReqPermWrapper_LicenseCode_cn.pdf" : u"ReqPermWrapper_LicenseCode_en.pdf";
  }
  return std::u16string();
}

std::u16string WrapperDirectory(std::u16string_view host_name, std::string_view an) {
  return Utf8ToUtf16(GetCacheDirectory(std::u16string(host_name), std::string(an)));
}

}  // namespace wrappers

namespace {

// Replaces one wrapper file: the old copy goes first and isn't brought back when the
// download fails, so a failure shows as a missing file.
void DownloadWrapperFile(const std::string& link, const std::u16string& path) {
  if (os::PathExists(path)) os::RemoveFile(path);
  DownloadFile(Utf8ToUtf16(link), path);
}

}  // namespace

void TetherdocServer::UpdateWrapperDocuments() {
  GuardedVoid([&] {
    const std::u16string url = ResolveTokenUrl(u"tdc_wrapper_set");
    if (url.empty()) return;
    Json::Value reply;
    if (RequestJson(reply, url, u"GET", std::string()) != TDC_HRESULT_OK) return;

    const Json::Value& data = ops::Member(reply, "data");
    const std::string links[] = {
        ops::JsonText(ops::Member(data, "protectWrapperFilelink")),
        ops::JsonText(ops::Member(data, "requestPermissionFilelink")),
        ops::JsonText(ops::Member(data, "requestPermissionLicenseFilelink")),
    };
    const std::u16string update_time = Utf8ToUtf16(ops::JsonText(ops::Member(data, "updateTime")));
    // The licence-code link alone is not enough to act on.
    if (links[0].empty() && links[1].empty()) return;

    // Without a host name there is neither a folder for the files nor a key for the
    // time that belongs to this service; nothing is fetched to a place of chance.
    const std::u16string host_name = GetHostNameOfUrl(m_wsDomain);
    if (host_name.empty()) return;
    const std::u16string folder = wrappers::WrapperDirectory(host_name, m_an);
    if (folder.empty()) return;

    bool needed = true;
    const std::u16string stored = wrappers::ReadWrapperUpdateTime(m_an, m_av, host_name);
    if (!stored.empty() && wrappers::SameUpdateTime(wrappers::ParseUpdateTime(update_time),
                                                    wrappers::ParseUpdateTime(stored))) {
      needed = false;
    }

    // The language is read once, so the three files belong to one set.
    const std::string al = m_al;
    std::u16string paths[3];
    for (size_t i = 0; i < 3; ++i) {
      paths[i] = folder + wrappers::WrapperFileName(wrappers::kWrapperFiles[i], al);
      if (!os::PathExists(paths[i])) needed = true;
    }

    // Stored before any download, whatever follows: a download that fails leaves its
    // file missing, and that alone brings the next attempt.
    wrappers::WriteWrapperUpdateTime(m_an, m_av, host_name, update_time);
    if (!needed) return;
    for (size_t i = 0; i < 3; ++i) {
      if (!links[i].empty()) DownloadWrapperFile(links[i], paths[i]);
    }
  });
}

}  // namespace tpcsdk
