#include "web_service/tetherdoc_server.h"

#include <algorithm>
#include <memory>
#include <new>

#include "http_transport/async_winhttp.h"
#include "platform/diagnostic_log.h"
#include "os/debug_output.h"
#include "os/user_agent.h"
#include "platform/platform.h"
#include "polling/pull_msg_thread.h"
#include "support/guard.h"
#include "support/out_buffer.h"
#include "support/utf.h"
#include "web_service/api_cache.h"

namespace tpcsdk {
namespace {

constexpr char16_t kClientQueryLiteral[] = u"al=%s&cv=%s&an=%s&av=%s";
constexpr char16_t kTokenPlaceholder[] = u"${access-token}";
constexpr char16_t kTokenQueryPlaceholder[] = u"access-token=%s";
constexpr int32_t kRetTokenExpired = 210007;

std::string U8(const std::u16string& s) { return Utf16ToUtf8(s); }

// The debug text of every closing step of the frame.
void DebugStopRequest() { os::DebugOutput(u"StopRequest"); }

}  // namespace

bool ReplaceFirst(std::u16string& text, std::u16string_view pattern,
                  std::u16string_view replacement) {
  if (pattern.empty()) return false;
  const size_t at = text.find(pattern);
  if (at == std::u16string::npos) return false;
  text.replace(at, pattern.size(), replacement);
  return true;
}

TetherdocServer::TetherdocServer(const char* al, const char* an, const char* av)
    : m_al(al ? al : ""), m_an(an ? an : ""), m_av(av ? av : ""), m_cv("2.0.0.0") {
  // The client logs where the platform logs; the platform comes up first if a host
  // somehow reached here without it.
  if (TDOCPlatform* platform = TDOCPlatform::Instance()) m_pLog = platform->Log();
  m_pPullThread = std::make_unique<CPullMsgThread>(this);
}

// A call in flight: while one is held, the client is not destroyed. BeginRequest's hold
// goes with the request to EndRequest, whose letting go is the call's last touch of the
// client.
// The count takes no lock while the client lives, since every call of every host thread
// passes here twice. Once the destructor has marked it closing (under m_lockCalls), a
// hold lets go under that lock and wakes the destructor; before that, its one atomic
// step is its last touch of the client, and the destructor sees that step.
struct TetherdocServer::CallHold {
  enum Mode { kNew, kAdopt };
  CallHold(TetherdocServer& client, Mode mode) : m_client(&client) {
    if (mode == kAdopt) return;
    client.m_nCallsInFlight.fetch_add(1, std::memory_order_relaxed);
  }
  ~CallHold() {
    if (!m_client) return;
    std::atomic<uint32_t>& count = m_client->m_nCallsInFlight;
    uint32_t seen = count.load(std::memory_order_relaxed);
    while (!(seen & kCallsClosing)) {
      if (count.compare_exchange_weak(seen, seen - 1, std::memory_order_release,
                                      std::memory_order_relaxed)) {
        return;
      }
    }
    std::lock_guard<std::mutex> lock(m_client->m_lockCalls);
    if ((count.fetch_sub(1, std::memory_order_acq_rel) & ~kCallsClosing) == 1) {
      m_client->m_callsEnded.notify_all();
    }
  }
  CallHold(const CallHold&) = delete;
  CallHold& operator=(const CallHold&) = delete;
  // Leaves the hold in place for a later step, which adopts it.
  void HandOver() { m_client = nullptr; }

 private:
  TetherdocServer* m_client;
};

TetherdocServer::~TetherdocServer() {
  // The worker reads the subscriber lists and calls the host: it ends first. Its stop
  // closes the round's request, so a held round does not keep it.
  if (m_pPullThread && m_pPullThread->IsRunning()) m_pPullThread->Stop();
  m_pPullThread.reset();
  {
    // From here on a request that joins the list starts stopped.
    std::lock_guard<std::recursive_mutex> lock(m_lockRequests);
    m_bClosing = true;
  }
  StopRequest();
  // The stopped callers wake and leave through EndRequest; they still use this object.
  std::unique_lock<std::mutex> lock(m_lockCalls);
  m_nCallsInFlight.fetch_or(kCallsClosing, std::memory_order_acq_rel);
  m_callsEnded.wait(lock, [this] {
    return (m_nCallsInFlight.load(std::memory_order_acquire) & ~kCallsClosing) == 0;
  });
}

void TetherdocServer::Destroy(unsigned int flags) {
  if (flags & 1) {
    delete this;
  } else {
    this->~TetherdocServer();
  }
}

// ---- API directory -------------------------------------------------------------

int TetherdocServer::InitApi(const char16_t* host) {
  return Guarded(TDC_HRESULT_FAILED, [&]() -> int {
    if (!host) return TDC_HRESULT_BAD_ARGUMENT;
    const std::u16string wsHost(host, WideLength(host));
    if (wsHost.empty()) return TDC_HRESULT_FAILED;
    if (Language().empty() || m_an.empty() || m_av.empty()) return TDC_HRESULT_BAD_ARGUMENT;
    CallHold hold(*this, CallHold::kNew);
    if (m_pLog) m_pLog->Write("Starts TetherdocServer::InitApi. Host = %s", U8(wsHost).c_str());

    std::lock_guard<std::recursive_mutex> lock(m_lockInitApi);
    int nStatus = 0;
    const ApiCache cache(m_an, m_pLog);
    // A cache entry comes back parsed as well as in text: the text is only logged.
    Json::Value root;
    std::string text = cache.GetCacheApi(wsHost, &root);
    const bool fromCache = !text.empty();
    if (fromCache) {
      if (m_pLog) {
        m_pLog->Write("TetherdocServer::InitApi. Use Cache Api Data");
        m_pLog->Write("TetherdocServer::InitApi. Cache Api Data: %s", text.c_str());
      }
    } else {
      if (m_pLog) m_pLog->Write("TetherdocServer::InitApi. Starts to request API list from server.");
      const std::u16string url = wsHost + u"/" + Utf8ToUtf16(m_cv) + u"/" + Utf8ToUtf16(m_an) +
                                 u"/" + Utf8ToUtf16(m_av) + u"/" + Utf8ToUtf16(Language()) +
                                 u"/tdocApi.json";
      if (m_pLog) m_pLog->Write("request API list from: %s", U8(url).c_str());
      std::u16string body, extra;
      nStatus = EndRequest(BeginRequest(url, u"GET", std::string()), body, extra);
      text = U8(body);
      if (m_pLog) m_pLog->Write("TetherdocServer::InitApi. End API list Request Body: %s", text.c_str());
      if (nStatus != 200 && m_pLog)
        m_pLog->Write("TetherdocServer::InitApi. No Cache Dada or Request API HTTP fails");
    }

    auto fail = [&]() -> int {
      if (m_pLog)
        m_pLog->Write(" TetherdocServer::InitApi  Request API Failed Host = %s errId:%d",
                      U8(wsHost).c_str(), nStatus);
      m_nApiReady = 0;
      return nStatus == 403 ? TDC_HRESULT_FORBIDDEN : TDC_HRESULT_HTTP_ERROR;
    };
    if (!fromCache && nStatus != 200) return fail();

    ApiTable table;
    const ApiDirectoryStatus status = fromCache ? ReadApiDirectory(root, table) : ReadApiDirectory(text, table);
    if (status == ApiDirectoryStatus::kNotJson) {
      if (m_pLog)
        m_pLog->Write("TetherdocServer::InitApi.  Parser URL Failed Host = %s", U8(wsHost).c_str());
      m_nApiReady = 0;
      return TDC_HRESULT_SERVICE_ERROR;
    }
    m_mapApi = std::move(table);
    if (status == ApiDirectoryStatus::kSizeMismatch) return fail();
    if (status == ApiDirectoryStatus::kNoTwsConfig) return TDC_HRESULT_SERVICE_ERROR;
    if (status == ApiDirectoryStatus::kEmptyTwsConfig) {
      if (m_pLog)
        m_pLog->Write("TetherdocServer::InitApi  twsConfig is null : Host = %s", U8(wsHost).c_str());
      return TDC_HRESULT_FAILED;
    }
    m_nApiReady = 1;
    if (!fromCache) cache.SetCacheApi(wsHost, text);
    m_wsDomain = GetApiUrl(u"url", u"tdc_domain");
    m_wsHost = wsHost;
    if (m_pLog) m_pLog->Write("TetherdocServer::InitApi   : Host = %s", U8(wsHost).c_str());
    return TDC_HRESULT_OK;
  });
}

// The language is the one identity field that changes after construction; a request
// on another thread may read it while the host sets it, so both go through this lock.
std::string TetherdocServer::Language() const {
  std::lock_guard<std::mutex> lock(m_lockLanguage);
  return m_al;
}

void TetherdocServer::SetLanguage(std::string language) {
  std::lock_guard<std::mutex> lock(m_lockLanguage);
  m_al = std::move(language);
}

std::u16string TetherdocServer::GetApiUrl(std::u16string_view prefix,
                                          std::u16string_view key) const {
  if (m_mapApi.empty()) return std::u16string();
  std::u16string full(prefix);
  full += u'@';
  full += key;
  auto it = m_mapApi.find(full);
  return it == m_mapApi.end() ? std::u16string() : it->second;
}

void TetherdocServer::SetApiUrl(const std::u16string& fullKey, const std::u16string& url) {
  m_mapApi[fullKey] = url;
}

void TetherdocServer::LoadApiTable(const std::u16string& prefix, const Json::Value& value) {
  tpcsdk::LoadApiTable(m_mapApi, prefix, value);
}

// ---- request frame -------------------------------------------------------------

std::u16string TetherdocServer::ResolveTokenUrl(std::u16string_view key) const {
  std::u16string url = GetApiUrl(u"url", key);
  if (url.empty()) return url;
  const std::u16string token = AccessToken();
  if (!ReplaceFirst(url, kTokenPlaceholder, token))
    ReplaceFirst(url, kTokenQueryPlaceholder, u"access-token=" + token);
  return url;
}

std::u16string TetherdocServer::AccessToken() const {
  std::lock_guard<std::recursive_mutex> lock(m_lockToken);
  return m_wsAccessToken;
}

std::u16string TetherdocServer::BuildClientQuery() const {
  return u"al=" + Utf8ToUtf16(Language()) + u"&cv=" + Utf8ToUtf16(m_cv) + u"&an=" +
         Utf8ToUtf16(m_an) + u"&av=" + Utf8ToUtf16(m_av);
}

std::u16string TetherdocServer::BuildUserAgent() const {
  std::u16string name = Utf8ToUtf16(m_an);
  while (ReplaceFirst(name, u" ", u"_")) {
  }
  return u"TDOC/" + Utf8ToUtf16(m_cv) + u" " + os::SystemUserAgent() + u" " + name + u"/" +
         Utf8ToUtf16(m_av) + u" TPCSDK/" + Utf8ToUtf16(m_av);
}

std::u16string TetherdocServer::HeadersFor(const std::string& language) const {
  const std::u16string al = Utf8ToUtf16(language);
  return u"Content-type: application/json\r\nX-tetherdoc-UA: al(" + al + u");cv(" +
         Utf8ToUtf16(m_cv) + u");an(" + Utf8ToUtf16(m_an) + u");av(" + Utf8ToUtf16(m_av) +
         u")\r\nAccept-Language: " + al + u"\r\n";
}

std::u16string TetherdocServer::BuildRequestHeaders() const { return HeadersFor(Language()); }

std::u16string TetherdocServer::RequestHeaders() const {
  std::lock_guard<std::mutex> lock(m_lockLanguage);
  if (m_wsHeaders.empty() || m_headersLanguage != m_al) {
    m_wsHeaders = HeadersFor(m_al);
    m_headersLanguage = m_al;
  }
  return m_wsHeaders;
}

CAsyncWinHttp* TetherdocServer::BeginRequest(const std::u16string& url,
                                             const std::u16string& method,
                                             const std::string& body) {
  if (m_pLog) m_pLog->Write("TetherdocServer::BeginRequest. Host = %s", U8(url).c_str());
  CallHold hold(*this, CallHold::kNew);  // goes with the request to EndRequest
  std::unique_ptr<CAsyncWinHttp> request(new (std::nothrow) CAsyncWinHttp());
  if (!request) return nullptr;
  // The first request of the process opens the session with its agent; later
  // requests share that session, so only a request that finds none builds one.
  if (!CAsyncWinHttp::HasSession()) CAsyncWinHttp::EnsureSession(BuildUserAgent());
  request->SetLog(m_pLog);
  CAsyncWinHttp* const listed = request.get();
  {
    std::lock_guard<std::recursive_mutex> lock(m_lockRequests);
    m_requests.push_back(listed);
    // A client that is going away sends nothing more.
    if (m_bClosing) listed->CloseRequest();
  }
  // Any way out but success leaves the list; `request` then deletes the object.
  ScopeExit delist([this, listed] {
    std::lock_guard<std::recursive_mutex> lock(m_lockRequests);
    m_requests.remove(listed);
  });
  if (!listed->Connect(url)) return nullptr;
  {
    // A send that failed, or threw, is closed before it leaves the list.
    ScopeExit close([listed] {
      DebugStopRequest();
      listed->CloseRequest();
    });
    if (!listed->SendRequest(RequestHeaders(), body, method)) return nullptr;
    close.Keep();
  }
  delist.Keep();
  hold.HandOver();
  return request.release();
}

template <class Take>
int TetherdocServer::FinishRequest(CAsyncWinHttp* request, Take&& take) {
  if (m_pLog) m_pLog->Write("TetherdocServer::EndRequest.");
  if (!request) return -1;
  CallHold hold(*this, CallHold::kAdopt);         // let go last
  std::unique_ptr<CAsyncWinHttp> owned(request);  // closed and deleted however this ends
  {
    std::lock_guard<std::recursive_mutex> lock(m_lockRequests);
    m_requests.remove(request);
  }
  int status = -1;
  if (owned->HasRequest()) {
    take(*owned);
    status = owned->StatusCode();
  }
  DebugStopRequest();
  owned->CloseRequest();
  return status;
}

int TetherdocServer::EndRequest(CAsyncWinHttp* request, std::u16string& responseBody,
                                std::u16string& responseExtra) {
  return FinishRequest(request, [&](const CAsyncWinHttp& done) {
    responseBody = done.ResponseText();
    responseExtra = done.SecondText();
  });
}

int TetherdocServer::EndRequest(CAsyncWinHttp* request, std::string& responseBody) {
  return FinishRequest(request,
                       [&](const CAsyncWinHttp& done) { responseBody = done.ResponseUtf8(); });
}

int TetherdocServer::RequestJson(Json::Value& reply, const std::u16string& url,
                                 const std::u16string& method, const std::string& body) {
  CAsyncWinHttp* request = BeginRequest(url, method, body);
  if (!request) return TDC_HRESULT_FAILED;
  std::string text;
  const int status = EndRequest(request, text);
  if (status == 403) return TDC_HRESULT_FORBIDDEN;
  if (status != 200) return TDC_HRESULT_HTTP_ERROR;

  Json::Reader reader;
  const bool parsed = reader.parse(text.data(), text.data() + text.size(), reply);  // no copy
  if (!parsed || !reply.isObject()) {
    return TDC_HRESULT_SERVICE_ERROR;  // an unparsed or non-object reply has no ret
  }
  // A missing ret is success; one that is not a number cannot be 0.
  const Json::Value& ret = static_cast<const Json::Value&>(reply)["ret"];  // no member added
  if (ret.isNull()) return TDC_HRESULT_OK;
  if (!ret.isConvertibleTo(Json::intValue)) return TDC_HRESULT_SERVICE_ERROR;
  const int nRet = ret.asInt();
  if (nRet == 0) return TDC_HRESULT_OK;
  return nRet == kRetTokenExpired ? TDC_HRESULT_RET_210007 : TDC_HRESULT_SERVICE_ERROR;
}

int TetherdocServer::StopRequest() {
  std::lock_guard<std::recursive_mutex> lock(m_lockRequests);
  // Every handle is closed before any closing is waited for: the waits then overlap,
  // and a stop of many calls takes about as long as one. The owners delete their
  // requests only after taking this lock, so each outlives both steps.
  for (CAsyncWinHttp* request : m_requests) {
    DebugStopRequest();
    request->BeginClose();
  }
  for (CAsyncWinHttp* request : m_requests) request->FinishClose();
  m_requests.clear();
  return 1;
}

size_t TetherdocServer::PendingRequests() {
  std::lock_guard<std::recursive_mutex> lock(m_lockRequests);
  return m_requests.size();
}

bool TetherdocServer::WaitForPendingStatus(std::chrono::milliseconds bound) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point deadline = Clock::now() + bound;
  std::lock_guard<std::recursive_mutex> lock(m_lockRequests);
  for (CAsyncWinHttp* request : m_requests) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (!request->WaitForStatus(std::max(left, std::chrono::milliseconds(0)))) return false;
  }
  return true;
}

// ---- slots of the frame --------------------------------------------------------

int TetherdocServer::GetWebServiceUrl(const char* key, TDC_LPWSTR* url) {
  return Guarded(TDC_HRESULT_FAILED, [&]() -> int {
    if (!m_nApiReady) return TDC_HRESULT_NOT_READY;
    std::u16string value = GetApiUrl(u"url", Utf8ToUtf16(key ? key : ""));
    if (value.empty()) return TDC_HRESULT_NO_URL;
    ReplaceFirst(value, kClientQueryLiteral, BuildClientQuery());
    if (!url) return TDC_HRESULT_FAILED;
    TDC_LPWSTR block = NewWideBlock(value);
    if (!block) return TDC_HRESULT_FAILED;
    *url = block;
    return TDC_HRESULT_OK;
  });
}

void TetherdocServer::GetDomain(TDC_LPWSTR* domain) {
  GuardedVoid([&] {
    if (domain && !m_wsDomain.empty())
      if (TDC_LPWSTR block = NewWideBlock(m_wsDomain)) *domain = block;
  });
}

void TetherdocServer::GetHost(TDC_LPWSTR* host) {
  GuardedVoid([&] {
    if (host && !m_wsHost.empty())
      if (TDC_LPWSTR block = NewWideBlock(m_wsHost)) *host = block;
  });
}

int TetherdocServer::SetAccessToken(TDC_LPCWSTR token) {
  return Guarded(TDC_HRESULT_FAILED, [&]() -> int {
    std::u16string value = WideArg(token);
    std::lock_guard<std::recursive_mutex> lock(m_lockToken);
    if (value != m_wsAccessToken) m_wsAccessToken = std::move(value);
    return TDC_HRESULT_OK;
  });
}

void TetherdocServer::GetAccessToken(char** token) {
  GuardedVoid([&] {
    if (!token) return;
    if (char* block = NewTextBlock(U8(AccessToken()))) *token = block;
  });
}

}  // namespace tpcsdk
