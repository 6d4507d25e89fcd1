#include "http_transport/async_winhttp.h"

#include <new>

#include "http_transport/winhttp_handles.h"

namespace tpcsdk {

CAsyncWinHttp::~CAsyncWinHttp() {
  CloseRequest();
  delete m_pRequest;
  delete m_pConnection;
  m_pRequest = nullptr;
  m_pConnection = nullptr;
  m_pfnResult = nullptr;
  m_nCallbackData = 0;
}

void CAsyncWinHttp::EnsureSession(const std::u16string& agent) { WinHttpSession::Create(agent); }

bool CAsyncWinHttp::Connect(const std::u16string& url) {
  m_pfnResult = nullptr;
  m_nCallbackData = 0;
  m_pConnection = new (std::nothrow) WinHttpConnection();
  return m_pConnection && m_pConnection->Open(url);
}

bool CAsyncWinHttp::SendRequest(const std::u16string& headers, const std::string& body,
                                const std::u16string& method) {
  if (!m_pConnection) return false;
  m_pRequest = new (std::nothrow) WinHttpRequest();
  if (!m_pRequest) return false;
  m_pRequest->SetLog(m_pLog);
  if (!m_pRequest->Open(m_pConnection, method)) return false;
  if (headers.empty()) return false;
  if (!m_pRequest->Send(headers, body)) return false;
  if (m_pfnResult) {
    m_pfnResult(m_pRequest->ResponseText(), m_pRequest->SecondText(), m_pRequest->StatusCode(),
                m_nCallbackData);
  }
  return true;
}

void CAsyncWinHttp::CloseRequest() {
  if (m_pRequest) m_pRequest->Close();
}

std::u16string CAsyncWinHttp::ResponseText() const {
  return m_pRequest ? m_pRequest->ResponseText() : std::u16string();
}

std::u16string CAsyncWinHttp::SecondText() const {
  return m_pRequest ? m_pRequest->SecondText() : std::u16string();
}

int32_t CAsyncWinHttp::StatusCode() const { return m_pRequest ? m_pRequest->StatusCode() : 0; }

}  // namespace tpcsdk
