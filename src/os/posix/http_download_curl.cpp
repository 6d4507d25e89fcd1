// Blocking GET for file downloads on Linux: one libcurl transfer driven on the calling
// thread through a private multi handle, so the body can be pulled piece by piece.
#include <curl/curl.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "os/http.h"
#include "os/http_download.h"
#include "support/utf.h"

namespace tpcsdk::os {

void HttpSetLastErrorInternal(uint32_t error);  // http_curl.cpp

namespace {

using Clock = std::chrono::steady_clock;
constexpr size_t kBufferCap = 256 * 1024;
constexpr long kConnectTimeoutMs = 60000;
constexpr auto kReceiveTimeout = std::chrono::seconds(30);

bool Fail(uint32_t error) {
  HttpSetLastErrorInternal(error);
  return false;
}

char LowerAscii(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c; }

bool EqualsNoCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (LowerAscii(a[i]) != LowerAscii(b[i])) return false;
  }
  return true;
}

std::string_view Trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r' || s.back() == '\n')) {
    s.remove_suffix(1);
  }
  return s;
}

uint32_t MapError(CURLcode code) {
  switch (code) {
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY: return kHttpErrorNameNotResolved;
    case CURLE_COULDNT_CONNECT: return kHttpErrorCannotConnect;
    case CURLE_OPERATION_TIMEDOUT: return kHttpErrorTimeout;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_CACERT_BADFILE: return kHttpErrorSecureFailure;
    case CURLE_GOT_NOTHING:
    case CURLE_WEIRD_SERVER_REPLY: return kHttpErrorInvalidServerResponse;
    case CURLE_TOO_MANY_REDIRECTS: return kHttpErrorRedirectFailed;
    case CURLE_OUT_OF_MEMORY: return kHttpErrorNotEnoughMemory;
    case CURLE_URL_MALFORMAT: return kHttpErrorInvalidUrl;
    default: return kHttpErrorConnectionError;
  }
}

// Proxy entries "[scheme=]host[:port]" separated by ';' or blanks.
std::string ProxyFor(std::string_view list, bool secure) {
  std::string any, chosen;
  size_t i = 0;
  while (i < list.size()) {
    const size_t end = std::min(list.find_first_of("; \t", i), list.size());
    const std::string_view entry = list.substr(i, end - i);
    i = end + 1;
    if (entry.empty()) continue;
    const size_t eq = entry.find('=');
    if (eq == std::string_view::npos) {
      any = std::string(entry);
    } else if (EqualsNoCase(entry.substr(0, eq), secure ? "https" : "http")) {
      chosen = std::string(entry.substr(eq + 1));
    }
  }
  return chosen.empty() ? any : chosen;
}

}  // namespace

struct HttpBlockingGet::Impl {
  CURLM* multi = nullptr;
  CURL* easy = nullptr;
  std::string url, proxy, no_proxy, agent;
  std::string block;  // header lines of the response being received
  long block_status = 0;
  bool headers_done = false;
  std::vector<std::pair<std::string, std::string>> headers;
  uint32_t status = 0;
  std::string buffer;
  size_t head = 0;
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
    std::string_view line(data, n);
    while (!line.empty() && (line.back() == '\r' || line.back() == '\n')) line.remove_suffix(1);
    if (line.substr(0, 5) == "HTTP/") {
      d.block.assign(line);
      d.block += "\r\n";
      const size_t sp = line.find(' ');
      d.block_status = sp == std::string_view::npos ? 0 : std::atol(std::string(line.substr(sp + 1, 3)).c_str());
    } else if (!line.empty()) {
      d.block.append(line);
      d.block += "\r\n";
    } else if (d.block_status >= 200) {
      // curl follows a redirect that names where to go; any other block is final.
      std::vector<std::pair<std::string, std::string>> parsed;
      std::string_view all = d.block;
      size_t i = all.find("\r\n");
      bool location = false;
      while (i != std::string_view::npos && i + 2 < all.size()) {
        const size_t end = all.find("\r\n", i + 2);
        const std::string_view h = all.substr(i + 2, end - i - 2);
        const size_t colon = h.find(':');
        if (colon != std::string_view::npos) {
          parsed.emplace_back(std::string(Trim(h.substr(0, colon))), std::string(Trim(h.substr(colon + 1))));
          if (EqualsNoCase(parsed.back().first, "Location")) location = true;
        }
        i = end;
      }
      const long s = d.block_status;
      const bool followed = location && (s == 301 || s == 302 || s == 303 || s == 307 || s == 308);
      if (!followed) {
        d.headers = std::move(parsed);
        d.status = static_cast<uint32_t>(s);
        d.headers_done = true;
      }
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
    if (d.buffer.size() - d.head >= kBufferCap) {
      d.paused = true;
      return CURL_WRITEFUNC_PAUSE;
    }
    if (d.head > 0 && d.head >= d.buffer.size() / 2) {
      d.buffer.erase(0, d.head);
      d.head = 0;
    }
    d.buffer.append(data, n);
    return n;
  }

  // Runs the transfer until `ready` holds, the transfer ends or it stalls too long.
  template <class Ready>
  void Pump(Ready ready) {
    while (!ready() && !done) {
      if (paused && buffer.size() - head < kBufferCap / 2) {
        paused = false;
        curl_easy_pause(easy, CURLPAUSE_CONT);
        continue;
      }
      int running = 0;
      curl_multi_perform(multi, &running);
      int left = 0;
      while (CURLMsg* m = curl_multi_info_read(multi, &left)) {
        if (m->msg != CURLMSG_DONE) continue;
        done = true;
        if (m->data.result != CURLE_OK) error = MapError(m->data.result);
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
    d.proxy = ProxyFor(Utf16ToUtf8(config.proxy), secure);
    d.no_proxy = Utf16ToUtf8(config.bypass);
    std::replace(d.no_proxy.begin(), d.no_proxy.end(), ';', ',');

    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
    d.multi = curl_multi_init();
    d.easy = curl_easy_init();
    if (!d.multi || !d.easy) return Fail(kHttpErrorNotEnoughMemory);
    CURL* e = d.easy;
    curl_easy_setopt(e, CURLOPT_URL, d.url.c_str());
    curl_easy_setopt(e, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(e, CURLOPT_HTTPGET, 1L);
    curl_easy_setopt(e, CURLOPT_PATH_AS_IS, 1L);
    curl_easy_setopt(e, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(e, CURLOPT_MAXREDIRS, 10L);
    curl_easy_setopt(e, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(e, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(e, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2TLS));
    if (!d.agent.empty()) curl_easy_setopt(e, CURLOPT_USERAGENT, d.agent.c_str());
    curl_easy_setopt(e, CURLOPT_PROXY, d.proxy.c_str());
    curl_easy_setopt(e, CURLOPT_NOPROXY, d.no_proxy.c_str());
    curl_easy_setopt(e, CURLOPT_CONNECTTIMEOUT_MS, kConnectTimeoutMs);
    curl_easy_setopt(e, CURLOPT_HEADERFUNCTION, &Impl::OnHeader);
    curl_easy_setopt(e, CURLOPT_HEADERDATA, static_cast<void*>(&d));
    curl_easy_setopt(e, CURLOPT_WRITEFUNCTION, &Impl::OnWrite);
    curl_easy_setopt(e, CURLOPT_WRITEDATA, static_cast<void*>(&d));
    curl_easy_setopt(e, CURLOPT_PREREQFUNCTION, &Impl::OnPrereq);
    curl_easy_setopt(e, CURLOPT_PREREQDATA, static_cast<void*>(&d));
    if (curl_multi_add_handle(d.multi, e) != CURLM_OK) return Fail(kHttpErrorInternal);
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
  d.Pump([&d] { return d.buffer.size() > d.head; });
  const size_t n = d.buffer.size() - d.head;
  if (n == 0 && d.error) return Fail(d.error);
  *available = static_cast<uint32_t>(std::min<size_t>(n, UINT32_MAX));
  return true;
}

bool HttpBlockingGet::Read(void* buffer, uint32_t size, uint32_t* read) {
  if (!impl_ || !impl_->headers_done || !read || (size && !buffer)) {
    return Fail(kHttpErrorInvalidParameter);
  }
  Impl& d = *impl_;
  d.Pump([&d] { return d.buffer.size() > d.head; });
  const size_t n = std::min<size_t>(size, d.buffer.size() - d.head);
  if (n == 0 && d.error) return Fail(d.error);
  if (n) std::memcpy(buffer, d.buffer.data() + d.head, n);
  d.head += n;
  *read = static_cast<uint32_t>(n);
  return true;
}

}  // namespace tpcsdk::os
