// The configuration file as a source of hosts: slot 5 (the service host: `env`,
// then DNS, then the default) and slot 6 (the update host: `upd`, and DNS only when
// there is no file), and the configuration step of the platform's constructor.
#include <mutex>

#include "os/paths.h"
#include "platform/config_file.h"
#include "platform/diagnostic_log.h"
#include "platform/directory_lookup.h"
#include "platform/host_discovery.h"
#include "platform/platform.h"
#include "support/guard.h"
#include "support/utf.h"

namespace tpcsdk {
namespace {

std::string U8(const std::u16string& s) { return Utf16ToUtf8(s); }

}  // namespace

// The constructor's step: `logfile` and `appType` from the file; without a file the
// marker alone can switch logging on. A file that exists, even empty, leaves the
// marker unread.
void TDOCPlatform::ReadConfiguration() {
  ConfigFile file;
  const ConfigFile::Status status = file.Load(ConfigFilePath());
  if (status == ConfigFile::Status::NotOpened) {
    if (os::PathExists(LoggingMarkerPath())) m_nLogging = 1;
    return;
  }
  if (!file.HasKeys()) return;
  if (file.Take("logfile") == u"on") m_nLogging = 1;
  m_wsAppType = file.Take("appType");
}

// What every slot that reads the file takes besides its own key. A missing key clears
// the stored field; the logging flag is only ever set, and it opens nothing after the
// constructor.
void TDOCPlatform::TakeSharedConfigKeys(const ConfigFile& file) {
  if (!file.HasKeys()) return;
  const bool logging = file.Take("logfile") == u"on";
  std::u16string app_type = file.Take("appType");
  std::u16string suffix = file.Take("tDocDomain");
  std::lock_guard<std::mutex> hold(m_lockConfigFields);
  if (logging) m_nLogging = 1;
  m_wsAppType = std::move(app_type);
  m_wsDomainSuffix = std::move(suffix);
}

// The query runs on copies, outside any lock of the platform; two first look-ups of
// slots 5 and 10 may both ask, and the first answer stored is the one kept.
std::u16string TDOCPlatform::LookupHostFromDns() {
  std::u16string suffix, host;
  bool done = false;
  {
    std::lock_guard<std::mutex> hold(m_lockConfigFields);
    suffix = m_wsDomainSuffix;
    host = m_wsDnsHost;
    done = m_bDnsHostDone;
  }
  host = tpcsdk::LookupHostFromDns(m_pLog, suffix, DnsHostRecord{host, done});
  std::lock_guard<std::mutex> hold(m_lockConfigFields);
  if (!m_bDnsHostDone) {
    m_wsDnsHost = host;
    m_bDnsHostDone = done;
  }
  return m_wsDnsHost;
}

std::u16string TDOCPlatform::LookupUpdateHostFromDns() {
  return tpcsdk::LookupUpdateHostFromDns(m_pLog, DnsHostRecord{m_wsDnsUpdateHost, m_bDnsUpdateHostDone});
}

// Slot 5: `env` of the file, then DNS unless host finding is disabled, then the
// default service host. Hands out a host unless memory runs out.
int TDOCPlatform::GetRecordHostFromConfig(TDC_LPWSTR* host) {
  return Guarded(TDC_HRESULT_FAILED, [&] { return RecordHostFromConfig(host); });
}

int TDOCPlatform::RecordHostFromConfig(TDC_LPWSTR* out) {
  if (m_pLog) m_pLog->Write("GetRecordHostFromConfig Begin:");
  std::lock_guard<std::recursive_mutex> hold(m_lockHostLookup);
  const std::u16string path = ConfigFilePath();
  std::u16string host;
  ConfigFile file;
  const ConfigFile::Status status = file.Load(path);
  if (status == ConfigFile::Status::NotOpened) {
    if (m_pLog) m_pLog->Write("Open Configfile fail: %s", U8(path).c_str());
  } else {
    if (m_pLog) m_pLog->Write("Open Configfile Success: %s", U8(path).c_str());
    if (status == ConfigFile::Status::NoMemory) return TDC_HRESULT_FAILED;
    if (file.HasKeys()) {
      host = file.Take("env");
      TakeSharedConfigKeys(file);
    }
  }
  if (host.empty() && !m_nFindHostDisabled) {
    if (m_pLog) m_pLog->Write("Host URL is empty. Start to look up DNS.");
    host = LookupHostFromDns();
  }
  if (m_nFindHostDisabled && host.empty()) {
    if (m_pLog) m_pLog->Write("Disable Find Host From DNS. It must be empty.");
  }
  if (host.empty()) {
    if (m_pLog) m_pLog->Write("Host URL is empty. Set the default host URL.");
    host = DefaultServiceHost();
  }
  if (!HandOut(out, host)) return TDC_HRESULT_FAILED;
  if (m_pLog) {
    m_pLog->Write("ConfigPath: %s", U8(path).c_str());
    m_pLog->Write("GetRecordHostFromConfig: Host = %s", U8(host).c_str());
  }
  return TDC_HRESULT_OK;
}

// Slot 6: `upd` of the file. DNS is asked only when the file can't be opened: a file
// without `upd` ends the search. There is no default update host.
int TDOCPlatform::GetRecordUpdateHostFromConfig(TDC_LPWSTR* host) {
  return Guarded(TDC_HRESULT_FAILED, [&] { return RecordUpdateHostFromConfig(host); });
}

int TDOCPlatform::RecordUpdateHostFromConfig(TDC_LPWSTR* out) {
  std::lock_guard<std::recursive_mutex> hold(m_lockHostLookup);
  const std::u16string path = ConfigFilePath();
  ConfigFile file;
  const ConfigFile::Status status = file.Load(path);
  if (status != ConfigFile::Status::NotOpened) {
    if (m_pLog) m_pLog->Write("Open Configfile Success: %s", U8(path).c_str());
    if (status == ConfigFile::Status::NoMemory) return TDC_HRESULT_FAILED;
    std::u16string host;
    if (file.HasKeys()) {
      host = file.Take("upd");
      TakeSharedConfigKeys(file);
    }
    if (host.empty()) return TDC_HRESULT_OK;
    return HandOut(out, host) ? TDC_HRESULT_OK : TDC_HRESULT_FAILED;
  }

  if (m_pLog) m_pLog->Write("Open Configfile fail: %s", U8(path).c_str());
  std::u16string host;
  if (!m_nFindHostDisabled) {
    if (m_pLog) m_pLog->Write("Update Host URL is empty. Start to look up DNS.");
    host = LookupUpdateHostFromDns();
  } else if (m_pLog) {
    m_pLog->Write("Disable Find Update Host From DNS. It must be empty.");
  }
  if (host.empty()) {
    // Worded as in slot 5, though no default follows.
    if (m_pLog) m_pLog->Write("Host URL is empty. Set the default host URL.");
    return TDC_HRESULT_OK;
  }
  if (!HandOut(out, host)) return TDC_HRESULT_FAILED;
  if (m_pLog) m_pLog->Write("GetRecordHostFromConfig: Host = %s", U8(host).c_str());
  return TDC_HRESULT_OK;
}

}  // namespace tpcsdk
