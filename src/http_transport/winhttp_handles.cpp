#include "http_transport/winhttp_handles.h"

#include <atomic>
#include <cstring>
#include <new>

#include "platform/diagnostic_log.h"
#include "support/utf.h"

namespace tpcsdk {
namespace {

// TLS 1.0, 1.1 and 1.2; nothing older.
constexpr uint32_t kSecureProtocols =
    os::kHttpSecureProtocolTls1 | os::kHttpSecureProtocolTls1_1 | os::kHttpSecureProtocolTls1_2;
// Service certificates are accepted from an unknown authority, for another name and
// out of date.
constexpr uint32_t kLenientCertificates = os::kHttpSecurityFlagIgnoreUnknownCa |
                                          os::kHttpSecurityFlagIgnoreCertCnInvalid |
                                          os::kHttpSecurityFlagIgnoreCertDateInvalid;
// The one path whose query must travel exactly as composed, escapes and all.
constexpr char16_t kTicketPath[] = u"/tdocapi/v1/users/get-cas-ticket";

std::atomic<WinHttpSession*> g_session{nullptr};

// The registered callback: routes a notification to the request the send named.
void StatusCallback(os::HttpHandle, uintptr_t context, uint32_t status, void* info,
                    uint32_t length) {
  if (!context) return;
  reinterpret_cast<WinHttpRequest*>(context)->OnCallback(status, info, length);
}

}  // namespace

WinHttpHandle::~WinHttpHandle() {
  if (m_hHandle) os::HttpCloseHandle(m_hHandle);
  m_hHandle = nullptr;
}

// ---- session -------------------------------------------------------------------

WinHttpSession* WinHttpSession::Instance() { return g_session.load(); }

void WinHttpSession::Create(const std::u16string& agent) {
  if (g_session.load()) return;
  auto* session = new (std::nothrow) WinHttpSession();
  if (!session) return;
  session->Open(agent);
  WinHttpSession* expected = nullptr;
  // Two first requests racing: one session wins, the other is closed again.
  if (!g_session.compare_exchange_strong(expected, session)) delete session;
}

void WinHttpSession::CloseInstance() { delete g_session.exchange(nullptr); }

bool WinHttpSession::Open(const std::u16string& agent) {
  m_wsAgent = agent;
  os::HttpProxyConfig proxy;
  os::HttpGetUserProxyConfig(&proxy);
  const uint32_t access =
      proxy.proxy.empty() ? os::kHttpAccessTypeDefaultProxy : os::kHttpAccessTypeNamedProxy;
  m_hHandle = os::HttpOpen(agent, access, proxy.proxy, proxy.bypass, os::kHttpFlagAsync);
  if (!m_hHandle) return false;
  const uint32_t protocols = kSecureProtocols;
  os::HttpSetOption(m_hHandle, os::kHttpOptionSecureProtocols, &protocols, sizeof(protocols));
  return true;
}

// ---- connection ------------------------------------------------------------------

bool WinHttpConnection::Open(const std::u16string& url) {
  if (url.empty()) return false;
  m_wsUrl = url;
  m_components = os::HttpUrlParts();
  if (!os::HttpCrackUrl(url, /*decode=*/true, &m_components, os::kHttpUrlComponentCapacity))
    return false;
  if (m_components.path == kTicketPath) {
    // The ticket's query is taken from the URL as given, not decoded.
    const size_t q = url.find(u'?');
    if (q == std::u16string::npos) return false;
    m_wsRawQuery = url.substr(q);
    m_components.extra = m_wsRawQuery;
  }
  WinHttpSession* session = WinHttpSession::Instance();
  m_hHandle = os::HttpConnect(session ? session->Handle() : nullptr, m_components.host,
                              m_components.port);
  return m_hHandle != nullptr || os::HttpLastError() == 0;
}

// ---- request ---------------------------------------------------------------------

WinHttpRequest::~WinHttpRequest() { Close(); }

bool WinHttpRequest::Open(WinHttpConnection* connection, const std::u16string& method) {
  if (!connection) return false;
  // A stop may already reach this object (it was listed before it was opened).
  std::lock_guard<std::mutex> lock(m_closeLock);
  m_nChunkSize = m_nTotalSize = 0;
  m_readBuffer.clear();
  m_wsResponse.clear();
  m_sBody.clear();
  m_bBodyText = false;
  m_wsSecond.clear();
  m_nStatusCode = 0;
  m_pConnection = connection;

  const os::HttpUrlParts& parts = connection->Components();
  // The sender waits for the exchange in HttpDriveUntil, so that where the backend
  // can, it runs the exchange itself instead of handing each step to another thread.
  const uint32_t flags = (parts.scheme == os::kHttpSchemeHttps ? os::kHttpFlagSecure : 0) |
                         os::kHttpFlagSenderDrives;
  m_hHandle = os::HttpOpenRequest(connection->Handle(), method, parts.path + parts.extra, flags);
  bool ok = m_hHandle != nullptr;
  ok = ok && os::HttpSetStatusCallback(m_hHandle, &StatusCallback, os::kHttpAllNotifications);
  if (ok) {
    uint32_t security = 0;
    uint32_t size = sizeof(security);
    ok = os::HttpQueryOption(m_hHandle, os::kHttpOptionSecurityFlags, &security, &size);
    security |= kLenientCertificates;
    ok = ok && os::HttpSetOption(m_hHandle, os::kHttpOptionSecurityFlags, &security,
                                 sizeof(security));
  }
  return ok || os::HttpLastError() == 0;
}

bool WinHttpRequest::Send(const std::u16string& headers, const std::string& body) {
  os::HttpHandle sent = nullptr;
  {
    // Under the closing lock: a stop either lands before the send, which then never
    // goes out, or after it, when the closing waits for the client to let go.
    std::lock_guard<std::mutex> lock(m_closeLock);
    if (m_bStopped) return true;
    if (!m_hHandle) return false;
    bool ok = os::HttpAddRequestHeaders(m_hHandle, headers, os::kHttpAddReqFlagAdd);
    const auto length = static_cast<uint32_t>(body.size());
    if (ok) {
      ok = os::HttpSendRequest(m_hHandle, std::u16string_view(), body.data(), length, length,
                               reinterpret_cast<uintptr_t>(this));
      m_bContextGiven = ok;
      if (ok) sent = m_hHandle;
    }
    if (!ok && os::HttpLastError() != 0) return false;
  }
  // A close may come meanwhile: the handle then no longer names the request, and the
  // drive gives up at once; the closing still completes the wait below.
  if (sent) os::HttpDriveUntil(sent, &WinHttpRequest::Completed, this);
  m_completed.Wait();
  // Memory ran out while the reply was gathered (on the sender's own thread when it
  // drives the exchange): the call fails as any allocation in it would.
  if (m_bOutOfMemory) throw std::bad_alloc();
  return true;
}

bool WinHttpRequest::Completed(void* self) {
  return static_cast<WinHttpRequest*>(self)->m_bCompleted.load();
}

void WinHttpRequest::Complete() {
  m_bCompleted = true;
  m_completed.Set();
}

void WinHttpRequest::Close() {
  BeginClose();
  FinishClose();
}

void WinHttpRequest::BeginClose() {
  std::lock_guard<std::mutex> lock(m_closeLock);
  m_bStopped = true;
  if (m_hHandle && !m_bCloseIssued) {
    os::HttpCloseHandle(m_hHandle);
    m_bCloseIssued = true;
  }
}

void WinHttpRequest::FinishClose() {
  std::lock_guard<std::mutex> lock(m_closeLock);
  if (m_hHandle && m_bCloseIssued) {
    // The closing notification reaches this object only when the send gave it to the
    // client, and then it frees the sender too. Without that nothing would ever
    // signal: there is nothing to wait for, and a sender is freed here.
    if (m_bContextGiven) m_closed.Wait();
    else Complete();
    m_hHandle = nullptr;
    m_bCloseIssued = false;
  }
  FreeBuffers();
}

bool WinHttpRequest::WaitForStatus(std::chrono::milliseconds bound) {
  std::unique_lock<std::mutex> lock(m_statusLock);
  return m_statusArrived.wait_for(lock, bound, [this] { return m_nStatusCode.load() != 0; });
}

void WinHttpRequest::FreeBuffers() {
  m_readBuffer.clear();
  m_readBuffer.shrink_to_fit();
  delete[] m_pPendingPiece;
  m_pPendingPiece = nullptr;
}

int32_t WinHttpRequest::OnCallback(uint32_t status, void* information, uint32_t length) {
  // Nothing may leave a notification: memory running out ends the exchange, and the
  // sender reports it.
  try {
    return HandleNotification(status, information, length);
  } catch (const std::bad_alloc&) {
    m_bOutOfMemory = true;
    Complete();
    return 0;
  }
}

int32_t WinHttpRequest::HandleNotification(uint32_t status, void* information, uint32_t length) {
  if (status == os::kHttpStatusHandleClosing) {
    Complete();
    m_closed.Set();  // the last touch of this object by the client's thread
    return 0;
  }
  const bool quiet =
      status == os::kHttpStatusDataAvailable || status == os::kHttpStatusReadComplete;
  if (!quiet && m_pLog) m_pLog->Write("WinHttpRequest::OnCallback. Internet Status = %08X", status);

  switch (status) {
    case os::kHttpStatusSendRequestComplete:
      os::HttpReceiveResponse(m_hHandle);
      break;
    case os::kHttpStatusHeadersAvailable:
      QueryResponseHeaders();
      m_nChunkSize = m_nTotalSize = 0;
      os::HttpQueryDataAvailable(m_hHandle);
      break;
    case os::kHttpStatusDataAvailable:
      m_nChunkSize = information && length >= sizeof(uint32_t)
                         ? *static_cast<const uint32_t*>(information)
                         : 0;
      if (m_nChunkSize) ReadChunk();
      else FinishBody();
      break;
    case os::kHttpStatusReadComplete:
      if (length == 0) {
        delete[] m_pPendingPiece;
        m_pPendingPiece = nullptr;
        Complete();
      } else {
        GatherChunk(static_cast<char*>(information), length);
      }
      break;
    case os::kHttpStatusRequestError: {
      const auto* result = static_cast<const os::HttpAsyncResult*>(information);
      if (m_pLog && result) {
        m_pLog->Write("WinHttpRequest::OnCallback. Request error. Result Code = %08X, Error Code = %08X",
                      static_cast<unsigned>(result->call), result->error);
      }
      Complete();
      break;
    }
    default:
      break;
  }
  return 0;
}

int32_t WinHttpRequest::QueryResponseHeaders() {
  // Asked once into room on the stack that fits the usual head; a larger one is asked
  // again with the size the first answer gave.
  char16_t room[1024];
  uint32_t bytes = sizeof(room);
  if (os::HttpQueryHeaders(m_hHandle, os::kHttpQueryRawHeadersCrlf, nullptr, room, &bytes,
                           nullptr)) {
    m_wsResponse.assign(room);  // up to its terminating zero, as the larger case
  } else {
    if (os::HttpLastError() != os::kHttpErrorInsufficientBuffer) return -1;
    std::u16string raw(bytes / sizeof(char16_t) + 1, u'\0');
    bytes = static_cast<uint32_t>(raw.size() * sizeof(char16_t));
    if (!os::HttpQueryHeaders(m_hHandle, os::kHttpQueryRawHeadersCrlf, nullptr, raw.data(),
                              &bytes, nullptr)) {
      return -1;
    }
    m_wsResponse.assign(raw.c_str());
  }

  char16_t code[512] = {};
  uint32_t codeBytes = 512;
  if (!os::HttpQueryHeaders(m_hHandle, os::kHttpQueryStatusCode, nullptr, code, &codeBytes,
                            nullptr)) {
    return -1;
  }
  code[511] = 0;
  int32_t value = 0;
  for (const char16_t* p = code; *p >= u'0' && *p <= u'9' && value < 100000; ++p)
    value = value * 10 + (*p - u'0');
  {
    std::lock_guard<std::mutex> lock(m_statusLock);
    m_nStatusCode = value;
    m_statusArrived.notify_all();
  }
  return 0;
}

int32_t WinHttpRequest::QueryData() {
  return os::HttpQueryDataAvailable(m_hHandle) ? 0 : -1;
}

void WinHttpRequest::ReadChunk() {
  char* piece = new (std::nothrow) char[m_nChunkSize + 1];
  if (!piece) throw std::bad_alloc();
  std::memset(piece, 0, m_nChunkSize + 1);
  m_pPendingPiece = piece;
  if (!os::HttpReadData(m_hHandle, piece, m_nChunkSize)) {
    delete[] piece;
    m_pPendingPiece = nullptr;
  }
}

void WinHttpRequest::GatherChunk(char* piece, uint32_t length) {
  m_nChunkSize = length;
  m_readBuffer.append(piece, length);
  m_nTotalSize += length;
  if (piece == m_pPendingPiece) {
    delete[] m_pPendingPiece;
    m_pPendingPiece = nullptr;
  }
  QueryData();
}

void WinHttpRequest::FinishBody() {
  // An empty body never completes the exchange: only a closing frees the sender.
  if (m_nTotalSize == 0) return;
  // The body is text; anything behind a zero byte is dropped. It stays in UTF-8 until
  // someone asks for it in UTF-16.
  const size_t end = m_readBuffer.find('\0');
  if (end != std::string::npos) m_readBuffer.resize(end);
  m_sBody.swap(m_readBuffer);
  m_readBuffer.clear();
  m_bBodyText = true;
  Complete();
}

std::u16string WinHttpRequest::ResponseText() const {
  return m_bBodyText ? Utf8ToUtf16(m_sBody) : m_wsResponse;
}

std::string WinHttpRequest::ResponseUtf8() const {
  return m_bBodyText ? ValidUtf8(m_sBody) : Utf16ToUtf8(m_wsResponse);
}

}  // namespace tpcsdk
