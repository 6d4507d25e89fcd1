#include "platform/platform.h"

#include <new>

#include "http_transport/winhttp_handles.h"
#include "os/module.h"
#include "platform/diagnostic_log.h"
#include "profstore/profstore_ex.h"
#include "support/guard.h"
#include "support/out_buffer.h"
#include "support/utf.h"
#include "web_service/tetherdoc_server.h"

namespace tpcsdk {
namespace {

TDOCPlatform* g_pPlatform = nullptr;

void OnModuleEnd(bool processEnding) {
  TDOCPlatform::ExitInstance(processEnding);
  // Unloaded from a live process: with the clients gone, the session goes too, so the
  // HTTP client holds nothing of the module's once its code is unmapped.
  if (!processEnding) WinHttpSession::CloseInstance();
}

std::string Narrow(const std::u16string& s) { return Utf16ToUtf8(s); }

}  // namespace

TDOCPlatform* TDOCPlatform::Instance() {
  if (!g_pPlatform) {
    g_pPlatform = new (std::nothrow) TDOCPlatform();
    if (g_pPlatform) os::SetModuleEndHandler(&OnModuleEnd);
  }
  return g_pPlatform;
}

TDOCPlatform* TDOCPlatform::Existing() { return g_pPlatform; }

void TDOCPlatform::ExitInstance(bool processEnding) {
  TDOCPlatform* platform = g_pPlatform;
  if (!platform) return;
  g_pPlatform = nullptr;
  if (processEnding) {
    // The HTTP client's threads and the polling workers are gone; stopping clients
    // would wait for notifications that never come. Close the log and leave the
    // rest to the process's end.
    if (platform->m_pLog) {
      platform->m_pLog->Write("file close");
      platform->m_pLog->Close();
    }
    return;
  }
  delete platform;
}

TDOCPlatform::TDOCPlatform() {
  // The configuration file decides m_nLogging and m_wsAppType; with logging on, the
  // log opens here. Nothing here touches the network or the registry. A member of the
  // wrong type ends the reading with what was taken so far.
  GuardedVoid([&] { ReadConfiguration(); });
  if (m_nLogging) EnableLogging();
}

void TDOCPlatform::EnableLogging() {
  std::u16string app_type;
  {
    std::lock_guard<std::mutex> hold(m_lockConfigFields);
    m_nLogging = 1;
    app_type = m_wsAppType;
  }
  if (m_pLog) return;
  auto* log = new (std::nothrow) DiagnosticLog();
  if (log && log->Open(app_type)) {
    m_pLog = log;
  } else {
    delete log;
  }
}

TDOCPlatform::~TDOCPlatform() {
  for (TetherdocServer* client : m_clients) {
    if (!client) continue;
    client->StopRequest();
    client->Destroy(1);
  }
  m_clients.clear();
  if (m_pProfstore) {
    // The process-wide preference store is released with the platform.
    ReleaseProfStoreEx();
    m_pProfstore = nullptr;
  }
  if (m_pLog) {
    m_pLog->Write("file close");
    m_pLog->Close();
    delete m_pLog;
    m_pLog = nullptr;
  }
}

int TDOCPlatform::InitApi(TDC_LPCWSTR host, TDC_CLIENT_INFO* info, TDC_LPWSTR* domain) {
  return Guarded(TDC_HRESULT_FAILED, [&] { return InitApiImpl(host, info, domain); });
}

int TDOCPlatform::InitApiImpl(TDC_LPCWSTR host, TDC_CLIENT_INFO* info, TDC_LPWSTR* domain) {
  if (m_pLog) m_pLog->Write("InitApi(LPCWSTR lpcsHost,TDC_CLIENT_INFO* pClientInfo,LPWSTR* lpwsDomain)");
  if (!host) return TDC_HRESULT_FAILED;
  const std::u16string wsHost = WideArg(host);

  // Looked up through the slot, outside the lock, as a host would.
  if (auto* found = static_cast<TetherdocServer*>(GetServerByHost(host))) {
    if (domain) *domain = NewWideBlock(found->Domain());
    if (m_pLog) {
      m_pLog->Write("InitApi NULL != pTDOCServer");
      m_pLog->Write("InitApi wsDomain = %s", Narrow(found->Domain()).c_str());
    }
    return TDC_HRESULT_OK;
  }
  if (m_pLog) m_pLog->Write("NULL == pTDOCServer");

  std::lock_guard<std::recursive_mutex> lock(m_lockInitApi);
  if (!info || !info->lpsLanguage || !info->lpsAppName || !info->lpsAppVersion)
    return TDC_HRESULT_FAILED;
  auto* client = new (std::nothrow)
      TetherdocServer(info->lpsLanguage, info->lpsAppName, info->lpsAppVersion);
  if (!client) return TDC_HRESULT_FAILED;
  const int nRet = client->InitApi(wsHost.c_str());
  if (nRet != TDC_HRESULT_OK) {
    if (m_pLog) {
      m_pLog->Write("InitApi(LPCWSTR lpcsHost,TDC_CLIENT_INFO* pClientInfo,LPWSTR* lpwsDomain): "
                    "nRet != TDC_HRESULT_OK");
    }
    client->Destroy(1);
    return nRet;
  }
  m_clients.push_back(client);
  if (domain) *domain = NewWideBlock(client->Domain());
  if (m_pLog) m_pLog->Write("InitAPI: url = %s", Narrow(client->Domain()).c_str());
  return TDC_HRESULT_OK;
}

int TDOCPlatform::GetCurrentDomain(TDC_LPWSTR* domain) {
  return Guarded(TDC_HRESULT_FAILED, [&] { return GetCurrentDomainImpl(domain); });
}

int TDOCPlatform::GetCurrentDomainImpl(TDC_LPWSTR* domain) {
  if (m_wsCurrentDomain.empty() || !domain) return TDC_HRESULT_FAILED;
  TDC_LPWSTR block = NewWideBlock(m_wsCurrentDomain);
  if (!block) return TDC_HRESULT_FAILED;
  *domain = block;
  return TDC_HRESULT_OK;
}

void TDOCPlatform::SetCurrentDomain(TDC_LPCWSTR domain) {
  GuardedVoid([&] {
    m_wsCurrentDomain = WideArg(domain);
    if (m_pLog) m_pLog->Write("SetCurrentDomain: url = %s", Narrow(m_wsCurrentDomain).c_str());
  });
}

TetherdocServer* TDOCPlatform::FindByDomain(const std::u16string& domain) const {
  for (TetherdocServer* client : m_clients)
    if (client && client->Domain() == domain) return client;
  return nullptr;
}

TetherdocServer* TDOCPlatform::FindByHost(const std::u16string& host) const {
  for (TetherdocServer* client : m_clients)
    if (client && client->Host() == host) return client;
  return nullptr;
}

ITetherdocServer* TDOCPlatform::GetServerByDomain(TDC_LPCWSTR domain) {
  if (!domain) return nullptr;
  return Guarded<ITetherdocServer*>(nullptr, [&] { return FindByDomain(WideArg(domain)); });
}

ITetherdocServer* TDOCPlatform::GetServerByHost(TDC_LPCWSTR host) {
  if (!host) return nullptr;
  return Guarded<ITetherdocServer*>(nullptr, [&] { return FindByHost(WideArg(host)); });
}

void TDOCPlatform::StopAllRequest() {
  for (TetherdocServer* client : m_clients)
    if (client) client->StopRequest();
}

}  // namespace tpcsdk
