// Where the service host comes from: slots 5 to 10 of the platform, and the
// configuration step of its constructor. Each slot is one source with its own
// fallbacks; the host application decides in which order it asks them.
#include <mutex>

#include "os/paths.h"
#include "os/registry.h"
#include "platform/config_file.h"
#include "platform/diagnostic_log.h"
#include "platform/directory_lookup.h"
#include "platform/platform.h"
#include "platform/product_identity.h"
#include "profstore/profstore_ex.h"
#include "support/guard.h"
#include "support/out_buffer.h"
#include "support/utf.h"

namespace tpcsdk {
namespace {

std::string U8(const std::u16string& s) { return Utf16ToUtf8(s); }

// The hosts this build was made for (build-time settings).
std::u16string DefaultServiceHost() { return Utf8ToUtf16(TPCSDK_DEFAULT_SERVICE_HOST); }
std::u16string RegionalConfigHost() { return Utf8ToUtf16(TPCSDK_REGIONAL_CONFIG_HOST); }

// Hands a found host to the caller in a new block. False when there is nowhere to put
// it or no memory for it.
bool HandOut(TDC_LPWSTR* out, const std::u16string& host) {
  if (!out) return false;
  TDC_LPWSTR block = NewWideBlock(host);
  if (!block) return false;
  *out = block;
  return true;
}

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

namespace tpcsdk {
namespace {

constexpr char16_t kVendorKey[] = u"SOFTWARE\\Tarvo Software\\";

bool Holds(const std::u16string& text, const char16_t* word) { return text.find(word) != std::u16string::npos; }

// The product's activation state may call for the default service host. That check
// belongs to the product's licensing, which this library doesn't carry, so it never
// calls for it.
bool ActivationStateRequiresDefaultHost() { return false; }

// SOFTWARE\Tarvo Software\<product name> <major>.0
std::u16string ProductRegistryKey(bool editor, const std::u16string& version) {
  return kVendorKey + ProductKey(ProductName(editor ? ProductKind::Editor : ProductKind::Reader), version);
}

// A string value of the registry; false when the key or the value can't be read.
bool ReadRegistryString(os::RegRoot root, const std::u16string& path, const char16_t* name, std::u16string& out) {
  os::RegKey key = os::OpenRegKey(root, path);
  if (!key) return false;
  const bool read = os::QueryRegString(key, name, out);
  os::CloseRegKey(key);
  return read;
}

// The preference file of the installed product: <InstallPath>ProfStore\ProfStore.xml,
// or empty when the product's install path isn't recorded.
std::u16string PreferenceFilePath(bool editor) {
  std::u16string install;
  const std::u16string key =
      kVendorKey + std::u16string(ProductName(editor ? ProductKind::Editor : ProductKind::Reader)) + u"\\";
  if (!ReadRegistryString(os::RegRoot::kLocalMachine, key, u"InstallPath", install)) return std::u16string();
  return install + u"ProfStore" + os::kPathSeparator + u"ProfStore.xml";
}

}  // namespace

// The process-wide preference store; the first call's product, path and version hold
// for the life of the process.
IProfstore* TDOCPlatform::PreferenceStore(bool editor, const std::u16string& path,
                                          const std::u16string& version) {
  if (!m_pProfstore) m_pProfstore = GetProfStoreEx(editor ? 1 : 0, path, version);
  return m_pProfstore;
}

// Slot 7: the tenant value of the user's registry, then the preference store (file,
// machine policy, user policy).
int TDOCPlatform::GetRecordHostFromGPO(TDC_LPWSTR* host, TDC_LPCWSTR app, TDC_LPCWSTR version, TDC_LPCWSTR) {
  return Guarded(TDC_HRESULT_FAILED, [&] { return RecordHostFromGPO(host, WideArg(app), WideArg(version)); });
}

int TDOCPlatform::RecordHostFromGPO(TDC_LPWSTR* out, const std::u16string& app, const std::u16string& version) {
  if (m_pLog) m_pLog->Write("GetRecordHostFromGPO Begin:");
  std::lock_guard<std::recursive_mutex> hold(m_lockHostLookup);
  if (ActivationStateRequiresDefaultHost())
    return HandOut(out, DefaultServiceHost()) ? TDC_HRESULT_OK : TDC_HRESULT_FAILED;

  m_nFindHostDisabled = IsFindHostDisabled(app, version);
  const bool editor = Holds(app, u"BrindlePDF") || Holds(app, u"Editor");
  const std::u16string reg_path = ProductRegistryKey(editor, version) + u"\\plugins\\TDOCServer\\";
  std::u16string tenant;
  if (ReadRegistryString(os::RegRoot::kCurrentUser, reg_path, u"EnterpriseTenantDomain", tenant) &&
      !tenant.empty()) {
    if (!HandOut(out, tenant)) return TDC_HRESULT_FAILED;
    if (m_pLog) {
      m_pLog->Write("GetRecordHostFromGPO: from strRegPath = %s", U8(reg_path).c_str());
      m_pLog->Write("GetRecordHostFromGPO success:");
      m_pLog->Write("GetRecordHostFromGPO: Host = %s", U8(tenant).c_str());
    }
    return TDC_HRESULT_OK;
  }
  if (m_pLog) m_pLog->Write("GetRecordHostFromGPO: from strRegPath fail");

  const std::u16string store_path = PreferenceFilePath(editor);
  if (m_pLog) m_pLog->Write("ProfStore path: %s", U8(store_path).c_str());
  IProfstore* store = PreferenceStore(editor, store_path, version);
  std::u16string host;
  if (!store || !store->GetTDOCServerURL(host)) {
    if (m_pLog) m_pLog->Write("GetRecordHostFromGPO Fail: GetTDOCServerURL return Empty");
    return TDC_HRESULT_FAILED;
  }
  if (host.empty()) {
    if (m_pLog) m_pLog->Write("GetRecordHostFromGPO ProfStore Fail: Host is Empty");
    return TDC_HRESULT_OK;
  }
  if (!HandOut(out, host)) return TDC_HRESULT_FAILED;
  if (m_pLog) {
    m_pLog->Write("GetRecordHostFromGPO ProfStore success:");
    m_pLog->Write("GetRecordHostFromGPO: Host = %s", U8(host).c_str());
  }
  return TDC_HRESULT_OK;
}

// Slot 8: the update host from the preference store only. Unlike slot 7 it has no
// begin line, no activation step and no tenant step, and its Editor test looks only
// for "BrindlePDF".
int TDOCPlatform::GetRecordUpdateHostFromGPO(TDC_LPWSTR* host, TDC_LPCWSTR app, TDC_LPCWSTR version) {
  return Guarded(TDC_HRESULT_FAILED, [&] { return RecordUpdateHostFromGPO(host, WideArg(app), WideArg(version)); });
}

int TDOCPlatform::RecordUpdateHostFromGPO(TDC_LPWSTR* out, const std::u16string& app,
                                          const std::u16string& version) {
  std::lock_guard<std::recursive_mutex> hold(m_lockHostLookup);
  m_nFindHostDisabled = IsFindHostDisabled(app, version);
  const bool editor = Holds(app, u"BrindlePDF");
  IProfstore* store = PreferenceStore(editor, PreferenceFilePath(editor), version);
  std::u16string host;
  if (!store || !store->GetInternalUpdate(host)) return TDC_HRESULT_FAILED;
  if (!host.empty() && !HandOut(out, host)) return TDC_HRESULT_FAILED;
  if (m_pLog) m_pLog->Write("GetRecordHostFromGPO: Host = %s", U8(host).c_str());
  return TDC_HRESULT_OK;
}

// Slot 9: the service the user last signed in to by default. Each value of the
// LoginedService key is named by a host; the first whose text is "1" is the one.
int TDOCPlatform::GetRecordHostFromLastDefaultLogined(TDC_LPWSTR* host, TDC_LPCWSTR app, TDC_LPCWSTR version,
                                                      TDC_LPCWSTR user) {
  if (!user) return TDC_HRESULT_FAILED;
  return Guarded(TDC_HRESULT_FAILED, [&] {
    return RecordHostFromLastDefaultLogined(host, WideArg(app), WideArg(version), WideArg(user));
  });
}

int TDOCPlatform::RecordHostFromLastDefaultLogined(TDC_LPWSTR* out, const std::u16string& app,
                                                   const std::u16string& version, const std::u16string& user) {
  // An empty user is the current one; otherwise the user's security identifier
  // leads the path in the hive of all users.
  const os::RegRoot root = user.empty() ? os::RegRoot::kCurrentUser : os::RegRoot::kUsers;
  std::u16string path = user.empty() ? std::u16string() : user + u"\\";
  path += kVendorKey + ProductKey(app, version) + u"\\plugins\\TDOCServer\\LoginedService";
  os::RegKey key = os::OpenRegKey(root, path);
  if (!key) return TDC_HRESULT_FAILED;
  struct Closer {
    os::RegKey key;
    ~Closer() { os::CloseRegKey(key); }
  } closer{key};

  constexpr std::uint32_t kNameChars = 512;
  std::u16string name;
  std::uint32_t count = 0;
  while (os::EnumRegValue(key, count, name, kNameChars, nullptr, nullptr, nullptr) == os::RegStatus::kOk) ++count;
  for (std::uint32_t i = 0; i < count; ++i) {
    name.clear();
    if (os::EnumRegValue(key, i, name, kNameChars, nullptr, nullptr, nullptr) != os::RegStatus::kOk ||
        name.empty())
      continue;
    std::u16string text;
    if (!os::QueryRegString(key, name, text) || !EqualsIgnoringAsciiCase(text, u"1")) continue;
    if (!HandOut(out, name)) return TDC_HRESULT_FAILED;
    if (m_pLog) m_pLog->Write("GetRecordHostFromLastDefaultLogined: Host = %s", U8(name).c_str());
    return TDC_HRESULT_OK;
  }
  return TDC_HRESULT_FAILED;
}

// Slot 10: 1 when the host in force is another than the regional configuration host.
// The test switch of the registry says no at once; a tenant value says yes; then the
// policy host, then the configuration file and DNS decide. It takes no lock of its
// own: slot 7 takes it while it runs.
int TDOCPlatform::IsEnterpriseEnv(TDC_LPCWSTR app, TDC_LPCWSTR version, TDC_LPCWSTR user) {
  return Guarded(0, [&] { return EnterpriseEnv(app, version, user); });
}

int TDOCPlatform::EnterpriseEnv(TDC_LPCWSTR wide_app, TDC_LPCWSTR wide_version, TDC_LPCWSTR user) {
  const std::u16string app = WideArg(wide_app);
  const std::u16string version = WideArg(wide_version);
  const bool editor = Holds(app, u"BrindlePDF");
  const std::u16string plugin_key = ProductRegistryKey(editor, version) + u"\\plugins\\TDOCServer";
  std::u16string text;
  if (ReadRegistryString(os::RegRoot::kCurrentUser, plugin_key, u"Test", text) &&
      EqualsIgnoringAsciiCase(text, u"true"))
    return 0;
  text.clear();
  if (ReadRegistryString(os::RegRoot::kCurrentUser, plugin_key + u"\\", u"EnterpriseTenantDomain", text) &&
      !text.empty())
    return 1;

  const std::u16string regional = RegionalConfigHost();
  TDC_LPWSTR policy = nullptr;
  IPDFPlatform* self = this;
  const int rc = self->GetRecordHostFromGPO(&policy, wide_app, wide_version, user);
  if (rc == TDC_HRESULT_OK) {
    if (!policy) return 0;
    const std::u16string host = WideArg(policy);
    FreeBlock(policy);
    return EqualsIgnoringAsciiCase(host, regional) ? 0 : 1;
  }
  if (policy) FreeBlock(policy);

  std::u16string host;
  std::u16string test;
  ConfigFile file;
  const ConfigFile::Status status = file.Load(ConfigFilePath());
  if (status == ConfigFile::Status::NoMemory) return 0;
  if (status == ConfigFile::Status::Read && file.HasKeys()) {
    host = file.Take("env");
    TakeSharedConfigKeys(file);
    test = file.Take("Test");
  }
  if (test == u"true") return 0;
  if (host.empty()) {
    if (IsFindHostDisabled(app, version)) {
      if (m_pLog) m_pLog->Write("Disable Find Host From DNS. It must be empty.");
    } else {
      if (m_pLog) m_pLog->Write("Host URL is empty. Start to look up DNS.");
      host = LookupHostFromDns();
    }
    if (host.empty()) return 0;
  }
  return EqualsIgnoringAsciiCase(host, regional) ? 0 : 1;
}

}  // namespace tpcsdk
