// The enterprise test: slot 10.
#include "platform/config_file.h"
#include "platform/diagnostic_log.h"
#include "platform/directory_lookup.h"
#include "platform/host_discovery.h"
#include "platform/platform.h"
#include "platform/registry_locations.h"
#include "support/guard.h"
#include "support/out_buffer.h"
#include "support/text.h"

namespace tpcsdk {

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
  const ProductKind kind = Holds(app, u"BrindlePDF") ? ProductKind::Editor : ProductKind::Reader;
  const std::u16string plugin_key = reg::ProductVersionKey(kind, version) + reg::kServicePluginKey;
  std::u16string text;
  if (ReadRegistryString(os::RegRoot::kCurrentUser, plugin_key, reg::kTestSwitchValue, text) &&
      EqualsNoCase(text, u"true"))
    return 0;
  text.clear();
  if (ReadRegistryString(os::RegRoot::kCurrentUser, plugin_key + u"\\", reg::kTenantValue, text) &&
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
    return EqualsNoCase(host, regional) ? 0 : 1;
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
  return EqualsNoCase(host, regional) ? 0 : 1;
}

}  // namespace tpcsdk
