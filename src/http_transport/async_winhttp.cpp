#include "http_transport/async_winhttp.h"

#include <new>

#include "http_transport/winhttp_handles.h"

namespace tpcsdk {

CAsyncWinHttp::~CAsyncWinHttp() {
  CloseRequest();
  delete m_pRequest.load();
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
  auto* request = new (std::nothrow) WinHttpRequest();
  if (!request) return false;
  request->SetLog(m_pLog);
  m_pRequest = request;
  if (!request->Open(m_pConnection, method)) return false;
  if (headers.empty()) return false;
  if (!request->Send(headers, body)) return false;
  if (m_pfnResult) {
    m_pfnResult(request->ResponseText(), request->SecondText(), request->StatusCode(),
                m_nCallbackData);
  }
  return true;
}

void CAsyncWinHttp::CloseRequest() {
  if (WinHttpRequest* request = m_pRequest.load()) request->Close();
}

std::u16string CAsyncWinHttp::ResponseText() const {
  const WinHttpRequest* request = m_pRequest.load();
  return request ? request->ResponseText() : std::u16string();
}

std::u16string CAsyncWinHttp::SecondText() const {
  const WinHttpRequest* request = m_pRequest.load();
  return request ? request->SecondText() : std::u16string();
}

int32_t CAsyncWinHttp::StatusCode() const {
  const WinHttpRequest* request = m_pRequest.load();
  return request ? request->StatusCode() : 0;
}

}  // namespace tpcsdk
