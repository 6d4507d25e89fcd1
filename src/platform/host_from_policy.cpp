// Policy as a source of hosts: slot 7 (the tenant value of the user's registry, then
// the preference store: file, machine policy, user policy) and slot 8 (the update host
// from the preference store alone). Both refresh the DisableFindHost switch that
// slots 5 and 6 obey.
#include <mutex>

#include "os/paths.h"
#include "platform/diagnostic_log.h"
#include "platform/directory_lookup.h"
#include "platform/host_discovery.h"
#include "platform/platform.h"
#include "platform/registry_locations.h"
#include "profstore/profstore_ex.h"
#include "support/guard.h"
#include "support/out_buffer.h"
#include "support/utf.h"

namespace tpcsdk {
namespace {

std::string U8(const std::u16string& s) { return Utf16ToUtf8(s); }

// The product's activation state may call for the default service host. That check
// belongs to the product's licensing, which this library doesn't carry, so it never
// calls for it.
bool ActivationStateRequiresDefaultHost() { return false; }

ProductKind KindOf(bool editor) { return editor ? ProductKind::Editor : ProductKind::Reader; }

// The preference file of the installed product: <InstallPath>ProfStore\ProfStore.xml,
// or empty when the product's install path isn't recorded.
std::u16string PreferenceFilePath(bool editor) {
  std::u16string install;
  const std::u16string key = reg::ProductKeyAllVersions(KindOf(editor)) + u"\\";
  if (!ReadRegistryString(os::RegRoot::kLocalMachine, key, reg::kInstallPathValue, install)) return std::u16string();
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
  const std::u16string reg_path =
      reg::ProductVersionKey(KindOf(editor), version) + reg::kServicePluginKey + u"\\";
  std::u16string tenant;
  if (ReadRegistryString(os::RegRoot::kCurrentUser, reg_path, reg::kTenantValue, tenant) &&
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

}  // namespace tpcsdk
