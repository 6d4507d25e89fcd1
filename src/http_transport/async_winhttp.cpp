#include "http_transport/async_winhttp.h"

#include <new>
#include <utility>

#include "http_transport/winhttp_handles.h"

namespace tpcsdk {

CAsyncWinHttp::CAsyncWinHttp() = default;

CAsyncWinHttp::~CAsyncWinHttp() {
  // The request goes before the connection it was opened on.
  CloseRequest();
  m_pRequest.reset();
  m_pConnection.reset();
  m_pfnResult = nullptr;
  m_nCallbackData = 0;
}

void CAsyncWinHttp::EnsureSession(const std::u16string& agent) { WinHttpSession::Create(agent); }

bool CAsyncWinHttp::HasSession() { return WinHttpSession::Instance() != nullptr; }

bool CAsyncWinHttp::Connect(const std::u16string& url) {
  m_pfnResult = nullptr;
  m_nCallbackData = 0;
  m_pConnection.reset(new (std::nothrow) WinHttpConnection());
  return m_pConnection && m_pConnection->Open(url);
}

bool CAsyncWinHttp::SendRequest(const std::u16string& headers, const std::string& body,
                                const std::u16string& method) {
  if (!m_pConnection) return false;
  std::unique_ptr<WinHttpRequest> created(new (std::nothrow) WinHttpRequest());
  if (!created) return false;
  created->SetLog(m_pLog);
  WinHttpRequest* request = created.get();
  {
    std::lock_guard<std::mutex> lock(m_lock);
    if (m_pRequest) return false;  // one exchange per object
    // A stop that came before the request existed still holds: the request starts
    // closed, so its send never goes out.
    if (m_bStopped) request->Close();
    m_pRequest = std::move(created);
  }
  if (!request->Open(m_pConnection.get(), method)) return false;
  if (headers.empty()) return false;
  if (!request->Send(headers, body)) return false;
  if (m_pfnResult) {
    m_pfnResult(request->ResponseText(), request->SecondText(), request->StatusCode(),
                m_nCallbackData);
  }
  return true;
}

void CAsyncWinHttp::CloseRequest() {
  BeginClose();
  FinishClose();
}

void CAsyncWinHttp::BeginClose() {
  WinHttpRequest* request = nullptr;
  {
    std::lock_guard<std::mutex> lock(m_lock);
    m_bStopped = true;
    request = m_pRequest.get();
    m_pClosing = request;
  }
  // Set once and deleted only by the owner, so the request outlives this closing.
  if (request) request->BeginClose();
}

void CAsyncWinHttp::FinishClose() {
  WinHttpRequest* request = nullptr;
  {
    std::lock_guard<std::mutex> lock(m_lock);
    std::swap(request, m_pClosing);
  }
  // A request made after BeginClose is not this closing's: its sender sees the stop.
  if (request) request->FinishClose();
}

bool CAsyncWinHttp::WaitForStatus(std::chrono::milliseconds bound) {
  WinHttpRequest* request = Request();
  return request && request->WaitForStatus(bound);
}

WinHttpRequest* CAsyncWinHttp::Request() const {
  std::lock_guard<std::mutex> lock(m_lock);
  return m_pRequest.get();
}

bool CAsyncWinHttp::HasRequest() const { return Request() != nullptr; }

std::u16string CAsyncWinHttp::ResponseText() const {
  const WinHttpRequest* request = Request();
  return request ? request->ResponseText() : std::u16string();
}

std::string CAsyncWinHttp::ResponseUtf8() const {
  const WinHttpRequest* request = Request();
  return request ? request->ResponseUtf8() : std::string();
}

std::u16string CAsyncWinHttp::SecondText() const {
  const WinHttpRequest* request = Request();
  return request ? request->SecondText() : std::u16string();
}

int32_t CAsyncWinHttp::StatusCode() const {
  const WinHttpRequest* request = Request();
  return request ? request->StatusCode() : 0;
}

}  // namespace tpcsdk
