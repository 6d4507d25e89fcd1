// Blocking GET for file downloads on Linux: one libcurl transfer driven on the calling
// thread through a private multi handle, so the body can be pulled piece by piece.
#include <curl/curl.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>

#include "os/http.h"
#include "os/http_download.h"
#include "os/posix/http_text.h"
#include "support/text.h"
#include "support/utf.h"

namespace tpcsdk::os {

void HttpSetLastErrorInternal(uint32_t error);  // http_curl.cpp

namespace {

using namespace curlhttp;
using Clock = std::chrono::steady_clock;
constexpr long kConnectTimeoutMs = 60000;
constexpr auto kReceiveTimeout = std::chrono::seconds(30);

bool Fail(uint32_t error) {
  HttpSetLastErrorInternal(error);
  return false;
}

}  // namespace

struct HttpBlockingGet::Impl {
  CURLM* multi = nullptr;
  CURL* easy = nullptr;
  std::string url, proxy, no_proxy, agent;
  ResponseHead head;  // of the response being received
  bool headers_done = false;
  HeaderFields headers;
  uint32_t status = 0;
  BodyBuffer received;
  bool paused = false;
  bool connected = false;  // the current hop is past connecting
  bool done = false;
  uint32_t error = 0;
  Clock::time_point last_io;

  ~Impl() {
    if (easy) {
      if (multi) curl_multi_remove_handle(multi, easy);
      curl_easy_cleanup(easy);
    }
    if (multi) curl_multi_cleanup(multi);
  }

  static size_t OnHeader(char* data, size_t size, size_t count, void* p) {
    Impl& d = *static_cast<Impl*>(p);
    const size_t n = size * count;
    d.last_io = Clock::now();
    if (!d.head.Add(std::string_view(data, n)) || d.head.status < 200) return n;
    // curl follows a redirect that names where to go; any other head is final.
    const bool followed = IsRedirectStatus(d.head.status) && !d.head.Value("Location").empty();
    if (!followed) {
      d.headers = d.head.Fields();
      d.status = static_cast<uint32_t>(d.head.status);
      d.headers_done = true;
    }
    return n;
  }

  static int OnPrereq(void* p, char*, char*, int, int) {
    Impl& d = *static_cast<Impl*>(p);
    d.connected = true;
    d.last_io = Clock::now();
    return CURL_PREREQFUNC_OK;
  }

  static size_t OnWrite(char* data, size_t size, size_t count, void* p) {
    Impl& d = *static_cast<Impl*>(p);
    const size_t n = size * count;
    d.last_io = Clock::now();
    if (!d.headers_done) return n;  // the body of a redirect
    if (d.received.Full()) {
      d.paused = true;
      return CURL_WRITEFUNC_PAUSE;
    }
    d.received.Append(data, n);
    return n;
  }

  // Runs the transfer until `ready` holds, the transfer ends or it stalls too long.
  template <class Ready>
  void Pump(Ready ready) {
    while (!ready() && !done) {
      if (paused && received.Drained()) {
        paused = false;
        const CURLcode resumed = curl_easy_pause(easy, CURLPAUSE_CONT);
        if (resumed != CURLE_OK) {
          done = true;
          error = HttpErrorFromCurl(resumed);
          break;
        }
        continue;
      }
      int running = 0;
      curl_multi_perform(multi, &running);
      int left = 0;
      while (CURLMsg* m = curl_multi_info_read(multi, &left)) {
        if (m->msg != CURLMSG_DONE) continue;
        done = true;
        if (m->data.result != CURLE_OK) error = HttpErrorFromCurl(m->data.result);
      }
      if (ready() || done) break;
      if (connected && !paused && Clock::now() - last_io > kReceiveTimeout) {
        done = true;
        error = kHttpErrorTimeout;
        break;
      }
      curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
    }
  }
};

HttpBlockingGet::HttpBlockingGet() = default;
HttpBlockingGet::~HttpBlockingGet() = default;

bool HttpBlockingGet::Open(std::u16string_view agent, bool secure, std::u16string_view host,
                           uint16_t port, std::u16string_view path) {
  try {
    impl_ = std::make_unique<Impl>();
    Impl& d = *impl_;
    std::string h = Utf16ToUtf8(host);
    if (h.empty()) return Fail(kHttpErrorInvalidParameter);
    if (h.find(':') != std::string::npos && h.front() != '[') h = "[" + h + "]";
    if (port == 0) port = secure ? 443 : 80;
    std::string target = Utf16ToUtf8(path);
    if (target.empty() || target[0] != '/') target.insert(target.begin(), '/');
    d.url = std::string(secure ? "https://" : "http://") + h + ":" + std::to_string(port) + target;
    d.agent = Utf16ToUtf8(agent);
    HttpProxyConfig config;
    HttpGetUserProxyConfig(&config);
    std::string http_proxy, https_proxy;
    ParseProxyList(Utf16ToUtf8(config.proxy), &http_proxy, &https_proxy);
    d.proxy = secure ? https_proxy : http_proxy;
    // curl's no-proxy list: the same entries, separated by commas.
    for (const std::string& entry : ParseBypassList(Utf16ToUtf8(config.bypass))) {
      if (!d.no_proxy.empty()) d.no_proxy += ',';
      d.no_proxy += entry;
    }

    if (!CurlGlobalInit()) return Fail(kHttpErrorInternal);
    d.multi = curl_multi_init();
    d.easy = curl_easy_init();
    if (!d.multi || !d.easy) return Fail(kHttpErrorNotEnoughMemory);
    CurlOptions o(d.easy);
    o.Set(CURLOPT_URL, d.url.c_str())
        .Set(CURLOPT_NOSIGNAL, 1L)
        .Set(CURLOPT_HTTPGET, 1L)
        .Set(CURLOPT_PATH_AS_IS, 1L)
        .Set(CURLOPT_FOLLOWLOCATION, 1L)
        .Set(CURLOPT_MAXREDIRS, 10L)
        .Set(CURLOPT_PROTOCOLS_STR, "http,https")
        .Set(CURLOPT_REDIR_PROTOCOLS_STR, "http,https")
        .Set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2TLS))
        .Set(CURLOPT_PROXY, d.proxy.c_str())
        .Set(CURLOPT_NOPROXY, d.no_proxy.c_str())
        .Set(CURLOPT_CONNECTTIMEOUT_MS, kConnectTimeoutMs)
        .Set(CURLOPT_HEADERFUNCTION, &Impl::OnHeader)
        .Set(CURLOPT_HEADERDATA, static_cast<void*>(&d))
        .Set(CURLOPT_WRITEFUNCTION, &Impl::OnWrite)
        .Set(CURLOPT_WRITEDATA, static_cast<void*>(&d))
        .Set(CURLOPT_PREREQFUNCTION, &Impl::OnPrereq)
        .Set(CURLOPT_PREREQDATA, static_cast<void*>(&d));
    if (!d.agent.empty()) o.Set(CURLOPT_USERAGENT, d.agent.c_str());
    if (o.result() != CURLE_OK) return Fail(HttpErrorFromCurl(o.result()));
    if (curl_multi_add_handle(d.multi, d.easy) != CURLM_OK) return Fail(kHttpErrorInternal);
    d.last_io = Clock::now();
    d.Pump([&d] { return d.headers_done; });
    if (!d.headers_done) return Fail(d.error ? d.error : kHttpErrorInvalidServerResponse);
    return true;
  } catch (...) {
    return Fail(kHttpErrorNotEnoughMemory);
  }
}

uint32_t HttpBlockingGet::Status() const { return impl_ && impl_->headers_done ? impl_->status : 0; }

bool HttpBlockingGet::Header(std::u16string_view name, std::u16string* value) const {
  if (!impl_ || !value) return false;
  const std::string n = Utf16ToUtf8(name);
  for (const auto& [k, v] : impl_->headers) {
    if (EqualsNoCase(k, n)) {
      *value = Utf8ToUtf16(v);
      return true;
    }
  }
  return false;
}

bool HttpBlockingGet::QueryDataAvailable(uint32_t* available) {
  if (!impl_ || !impl_->headers_done || !available) return Fail(kHttpErrorIncorrectHandleState);
  Impl& d = *impl_;
  d.Pump([&d] { return d.received.Size() > 0; });
  const size_t n = d.received.Size();
  if (n == 0 && d.error) return Fail(d.error);
  *available = static_cast<uint32_t>(std::min<size_t>(n, UINT32_MAX));
  return true;
}

bool HttpBlockingGet::Read(void* buffer, uint32_t size, uint32_t* read) {
  if (!impl_ || !impl_->headers_done || !read || (size && !buffer)) {
    return Fail(kHttpErrorInvalidParameter);
  }
  Impl& d = *impl_;
  d.Pump([&d] { return d.received.Size() > 0; });
  const size_t n = d.received.Take(buffer, size);
  if (n == 0 && d.error) return Fail(d.error);
  *read = static_cast<uint32_t>(n);
  return true;
}

}  // namespace tpcsdk::os
