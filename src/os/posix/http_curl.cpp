// The HTTP seam on Linux: WinHTTP's asynchronous model emulated over libcurl's multi
// interface. See os/http.h for the contract; this file's own rules:
//   - Each session owns one event thread, one multi handle and one cookie share. Every
//     curl object of the session is touched only on that thread.
//   - All state of a session's handles is guarded by the session's mutex. The event
//     thread holds it while curl runs (curl's callbacks run inside and may use it) and
//     drops it to deliver notifications and to wait for sockets.
//   - Notifications are queued under the mutex and delivered on the event thread in
//     queue order, so they never overlap and HANDLE_CLOSING, queued last for a handle,
//     is delivered last. A queued notification is self-contained: delivery touches no
//     handle state.
//   - Handles are ids in a process table; the table entry goes at HttpCloseHandle, the
//     object when its HANDLE_CLOSING has been queued and nothing refers to it any more.
#include <curl/curl.h>
#include <netdb.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "os/http.h"
#include "support/utf.h"

namespace tpcsdk::os {

namespace {

thread_local uint32_t t_last_error = 0;

bool Fail(uint32_t error) {
  t_last_error = error;
  return false;
}

HttpHandle FailHandle(uint32_t error) {
  t_last_error = error;
  return nullptr;
}

using Clock = std::chrono::steady_clock;

// Bytes of body that may wait for the reader before the transfer is paused.
constexpr size_t kBufferCap = 256 * 1024;
constexpr int kMaxRedirects = 10;
constexpr uint32_t kDefaultSecureProtocols =
    kHttpSecureProtocolTls1 | kHttpSecureProtocolTls1_1 | kHttpSecureProtocolTls1_2;
constexpr uint32_t kErrorInvalidData = 13;  // a header that does not read as a number
constexpr uint32_t kErrorInvalidHeader = 12153;
constexpr uint32_t kErrorHeaderAlreadyExists = 12155;

struct Timeouts {
  int32_t resolve = 0;  // none
  int32_t connect = 60000;
  int32_t send = 30000;
  int32_t receive = 30000;
  int32_t receive_response = 30000;
};

enum class Kind { kSession, kConnect, kRequest };

struct Core;

struct Handle {
  explicit Handle(Kind k) : kind(k) {}
  virtual ~Handle() = default;
  const Kind kind;
  uintptr_t id = 0;
  std::shared_ptr<Core> core;
  std::shared_ptr<Handle> parent;
  // Guarded by core->mu.
  HttpStatusCallback callback = nullptr;
  uint32_t mask = 0;
  uintptr_t context = 0;
  Timeouts timeouts;
  bool closed_by_app = false;
  bool freed = false;  // HANDLE_CLOSING queued
  int children = 0;
};

struct Connect : Handle {
  Connect() : Handle(Kind::kConnect) {}
  std::string host;  // UTF-8
  uint16_t port = 0;
};

enum class Op { kNone, kSend, kReceive, kQuery, kRead };

struct Request : Handle {
  Request() : Handle(Kind::kRequest) {}
  ~Request() override;

  // Set at open.
  std::string host;
  uint16_t port = 0;
  bool secure = false;
  std::string verb;
  std::string target;  // path and query as they go on the request line
  std::vector<std::string> headers;  // "Name: value"
  uint32_t security_flags = 0;
  uint32_t redirect_policy = kHttpRedirectPolicyDisallowHttpsToHttp;

  // The exchange.
  Op op = Op::kNone;
  bool send_called = false;
  bool started = false;  // the transfer has been handed to curl
  bool send_complete = false;
  bool receive_called = false;
  bool headers_delivered = false;
  void* read_buffer = nullptr;
  uint32_t read_length = 0;
  std::string body;
  size_t body_offset = 0;

  // One hop of the transfer (reset on a redirect).
  CURL* easy = nullptr;
  curl_slist* header_list = nullptr;
  std::string url;         // the whole URL of the hop
  std::string hop_base;    // "scheme://host:port"
  std::string hop_target;  // what goes on the request line
  std::string hop_host;
  bool hop_secure = false;
  std::string hop_verb;
  std::string request_line_target;  // kept alive for curl
  bool hop_has_body = false;
  bool socket_opened = false;
  bool prereq_fired = false;
  bool upload_done = false;
  bool request_sent_noted = false;
  bool response_started = false;
  Clock::time_point t_start, t_socket, t_io;
  std::string header_block;
  long block_status = 0;
  bool redirect_pending = false;
  std::string redirect_url;
  int redirects = 0;
  uint32_t header_bytes = 0;
  uint32_t request_bytes = 0;

  // The final response.
  bool headers_ready = false;
  std::string raw_headers;  // status line and header lines, each ending CR LF, then CR LF
  long status = 0;
  std::string buffer;  // body bytes not yet read, from buffer_head on
  size_t buffer_head = 0;
  bool paused = false;
  bool waiting_noted = false;  // RECEIVING_RESPONSE sent for the wait in progress
  bool done = false;           // no more bytes will arrive
  uint32_t error = 0;          // why the transfer ended early; 0 when it did not

  size_t Buffered() const { return buffer.size() - buffer_head; }
};

// A notification ready for delivery; it holds everything the callback is given.
struct Note {
  HttpStatusCallback callback;
  HttpHandle handle;
  uintptr_t context;
  uint32_t status;
  void* info = nullptr;  // the caller's buffer for READ_COMPLETE
  uint32_t length = 0;
  uint32_t number = 0;
  HttpAsyncResult result{};
  std::u16string text;
};

struct Core {
  std::mutex mu;
  CURLM* multi = nullptr;
  CURLSH* share = nullptr;
  std::thread::id loop_thread;
  bool dirty = false;
  bool finished = false;  // the session's HANDLE_CLOSING is queued; the loop ends
  std::vector<std::shared_ptr<Request>> requests;
  std::vector<std::shared_ptr<Handle>> to_close;
  std::deque<Note> notes;
  // Session settings.
  std::string agent;
  std::string http_proxy, https_proxy;
  std::vector<std::string> bypass;
  uint32_t secure_protocols = kDefaultSecureProtocols;
};

Request::~Request() {
  if (header_list) curl_slist_free_all(header_list);
}

// ---- the handle table -----------------------------------------------------------

struct Table {
  std::mutex mu;
  std::unordered_map<uintptr_t, std::shared_ptr<Handle>> map;
  uintptr_t next = 0x1000;
};

// Never destroyed, so a session thread still running at exit finds it intact.
Table& Handles() {
  static Table* t = new Table;
  return *t;
}

HttpHandle Register(const std::shared_ptr<Handle>& h) {
  Table& t = Handles();
  std::lock_guard<std::mutex> lock(t.mu);
  t.next += 4;
  h->id = t.next;
  t.map[h->id] = h;
  return reinterpret_cast<HttpHandle>(h->id);
}

std::shared_ptr<Handle> Lookup(HttpHandle handle) {
  Table& t = Handles();
  std::lock_guard<std::mutex> lock(t.mu);
  auto it = t.map.find(reinterpret_cast<uintptr_t>(handle));
  return it == t.map.end() ? nullptr : it->second;
}

std::shared_ptr<Handle> Unregister(HttpHandle handle) {
  Table& t = Handles();
  std::lock_guard<std::mutex> lock(t.mu);
  auto it = t.map.find(reinterpret_cast<uintptr_t>(handle));
  if (it == t.map.end()) return nullptr;
  std::shared_ptr<Handle> h = std::move(it->second);
  t.map.erase(it);
  return h;
}

// ---- small helpers ----------------------------------------------------------------

std::string Narrow(std::u16string_view s) { return Utf16ToUtf8(s); }

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

// The object name as it goes on the request line. Spaces, control characters and
// bytes of non-ASCII characters (UTF-8) are always escaped, since the line could not
// carry them; the characters that are unsafe in a URL are escaped unless the caller
// asked for the name as it stands; '%' only on request.
std::string EscapeObjectName(std::u16string_view name, uint32_t flags) {
  static const char kHex[] = "0123456789ABCDEF";
  const std::string bytes = Narrow(name);
  std::string out;
  out.reserve(bytes.size() + 8);
  bool in_query = false;
  for (unsigned char c : bytes) {
    if (c == '?') in_query = true;
    const bool unsafe_disabled =
        (flags & kHttpFlagEscapeDisable) || (in_query && (flags & kHttpFlagEscapeDisableQuery));
    bool escape = c <= 0x20 || c >= 0x7F;
    if (c == '%') escape = (flags & kHttpFlagEscapePercent) != 0;
    if (!escape && !unsafe_disabled && std::strchr("\"#<>[\\]^`{|}", c) != nullptr) escape = true;
    if (escape) {
      out.push_back('%');
      out.push_back(kHex[c >> 4]);
      out.push_back(kHex[c & 15]);
    } else {
      out.push_back(static_cast<char>(c));
    }
  }
  if (out.empty() || out[0] != '/') out.insert(out.begin(), '/');
  return out;
}

// Proxy list in WinHTTP's form: entries "[scheme=][scheme://]host[:port]" separated by
// ';' or blanks; an entry without "scheme=" serves both schemes.
void ParseProxyList(std::string_view list, std::string* http, std::string* https) {
  size_t i = 0;
  while (i < list.size()) {
    const size_t end = std::min(list.find_first_of("; \t", i), list.size());
    const std::string_view entry = list.substr(i, end - i);
    i = end + 1;
    if (entry.empty()) continue;
    const size_t eq = entry.find('=');
    if (eq == std::string_view::npos) {
      if (http->empty()) *http = std::string(entry);
      if (https->empty()) *https = std::string(entry);
    } else if (EqualsNoCase(entry.substr(0, eq), "http")) {
      *http = std::string(entry.substr(eq + 1));
    } else if (EqualsNoCase(entry.substr(0, eq), "https")) {
      *https = std::string(entry.substr(eq + 1));
    }
  }
}

std::vector<std::string> ParseBypassList(std::string_view list) {
  std::vector<std::string> out;
  size_t i = 0;
  while (i < list.size()) {
    const size_t end = std::min(list.find_first_of(";, \t", i), list.size());
    if (end > i) out.emplace_back(list.substr(i, end - i));
    i = end + 1;
  }
  return out;
}

// A bypass entry matches the host itself or, as a domain ("example.com", ".example.com"
// or "*.example.com"), any name under it; "<local>" matches names without a dot; "*"
// matches every host.
bool Bypassed(const std::vector<std::string>& bypass, std::string_view host) {
  for (std::string_view e : bypass) {
    if (e == "*") return true;
    if (e == "<local>") {
      if (host.find('.') == std::string_view::npos) return true;
      continue;
    }
    if (e.substr(0, 2) == "*.") e.remove_prefix(1);
    if (!e.empty() && e[0] == '.') e.remove_prefix(1);
    if (EqualsNoCase(host, e)) return true;
    if (host.size() > e.size() && host[host.size() - e.size() - 1] == '.' &&
        EqualsNoCase(host.substr(host.size() - e.size()), e)) {
      return true;
    }
  }
  return false;
}

uint32_t MapCurlError(CURLcode code) {
  switch (code) {
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
      return kHttpErrorNameNotResolved;
    case CURLE_COULDNT_CONNECT:
      return kHttpErrorCannotConnect;
    case CURLE_OPERATION_TIMEDOUT:
      return kHttpErrorTimeout;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_INVALIDCERTSTATUS:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_USE_SSL_FAILED:
      return kHttpErrorSecureFailure;
    case CURLE_GOT_NOTHING:
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_BAD_CONTENT_ENCODING:
      return kHttpErrorInvalidServerResponse;
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
    case CURLE_PARTIAL_FILE:
      return kHttpErrorConnectionError;
    case CURLE_OUT_OF_MEMORY:
      return kHttpErrorNotEnoughMemory;
    case CURLE_TOO_MANY_REDIRECTS:
      return kHttpErrorRedirectFailed;
    case CURLE_URL_MALFORMAT:
      return kHttpErrorInvalidUrl;
    case CURLE_UNSUPPORTED_PROTOCOL:
      return kHttpErrorUnrecognizedScheme;
    default:
      return kHttpErrorInternal;
  }
}

// ---- notifications (core->mu held) --------------------------------------------------

Note& Queue(Handle& h, uint32_t status) {
  Note n;
  n.callback = h.callback;
  n.handle = reinterpret_cast<HttpHandle>(h.id);
  n.context = h.context;
  n.status = status;
  h.core->notes.push_back(std::move(n));
  return h.core->notes.back();
}

bool Wants(const Handle& h, uint32_t status) { return h.callback && (h.mask & status) != 0; }

void Notify(Handle& h, uint32_t status) {
  if (Wants(h, status)) Queue(h, status);
}

void NotifyNumber(Handle& h, uint32_t status, uint32_t number) {
  if (!Wants(h, status)) return;
  Note& n = Queue(h, status);
  n.number = number;
  n.length = sizeof(uint32_t);
}

void NotifyText(Handle& h, uint32_t status, std::string_view text) {
  if (!Wants(h, status)) return;
  Note& n = Queue(h, status);
  n.text = Utf8ToUtf16(text);
  n.length = static_cast<uint32_t>(n.text.size() + 1);
}

void NotifyError(Request& r, uintptr_t call, uint32_t error) {
  r.op = Op::kNone;
  if (!Wants(r, kHttpStatusRequestError)) return;
  Note& n = Queue(r, kHttpStatusRequestError);
  n.result.call = call;
  n.result.error = error;
  n.length = sizeof(HttpAsyncResult);
}

void NotifyReadComplete(Request& r, void* buffer, uint32_t count) {
  r.op = Op::kNone;
  if (!Wants(r, kHttpStatusReadComplete)) return;
  Note& n = Queue(r, kHttpStatusReadComplete);
  n.info = buffer;
  n.length = count;
}

void Deliver(Note& n) {
  if (!n.callback) return;
  void* info = n.info;
  switch (n.status) {
    case kHttpStatusDataAvailable:
    case kHttpStatusSecureFailure:
    case kHttpStatusRequestSent:
    case kHttpStatusResponseReceived:
      info = &n.number;
      break;
    case kHttpStatusRequestError:
      info = &n.result;
      break;
    case kHttpStatusHandleClosing:
      info = &n.handle;
      n.length = sizeof(HttpHandle);
      break;
    case kHttpStatusReadComplete:
      break;
    default:
      info = n.text.empty() && n.length == 0 ? nullptr : n.text.data();
      break;
  }
  try {
    n.callback(n.handle, n.context, n.status, info, n.length);
  } catch (...) {
    // A callback's exception must not end the event thread.
  }
}

void Wake(Core& core) {
  core.dirty = true;
  if (std::this_thread::get_id() != core.loop_thread && core.multi && !core.finished) {
    curl_multi_wakeup(core.multi);
  }
}

// ---- curl callbacks (event thread, core->mu held) --------------------------------------

size_t OnRead(char* out, size_t size, size_t count, void* p) {
  Request& r = *static_cast<Request*>(p);
  const size_t n = std::min(size * count, r.body.size() - r.body_offset);
  std::memcpy(out, r.body.data() + r.body_offset, n);
  r.body_offset += n;
  r.t_io = Clock::now();
  if (r.body_offset == r.body.size()) r.upload_done = true;
  return n;
}

int OnSeek(void* p, curl_off_t offset, int origin) {
  Request& r = *static_cast<Request*>(p);
  if (origin != SEEK_SET || offset < 0 || static_cast<size_t>(offset) > r.body.size()) {
    return CURL_SEEKFUNC_CANTSEEK;
  }
  r.body_offset = static_cast<size_t>(offset);
  r.upload_done = r.body_offset == r.body.size();
  return CURL_SEEKFUNC_OK;
}

curl_socket_t OnOpenSocket(void* p, curlsocktype, curl_sockaddr* address) {
  Request& r = *static_cast<Request*>(p);
  if (!r.socket_opened) {
    r.socket_opened = true;
    r.t_socket = Clock::now();
    char ip[64] = "";
    if (address->family == AF_INET || address->family == AF_INET6) {
      char host[64] = "";
      if (getnameinfo(&address->addr, address->addrlen, host, sizeof(host), nullptr, 0,
                      NI_NUMERICHOST) == 0) {
        std::memcpy(ip, host, sizeof(ip));
      }
    }
    NotifyText(r, kHttpStatusResolvingName, r.hop_host);
    NotifyText(r, kHttpStatusNameResolved, ip);
    NotifyText(r, kHttpStatusConnectingToServer, ip);
  }
  return socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}

int OnPrereq(void* p, char* primary_ip, char*, int, int) {
  Request& r = *static_cast<Request*>(p);
  r.prereq_fired = true;
  r.t_io = Clock::now();
  if (r.socket_opened) NotifyText(r, kHttpStatusConnectedToServer, primary_ip ? primary_ip : "");
  Notify(r, kHttpStatusSendingRequest);
  return CURL_PREREQFUNC_OK;
}

bool IsRedirect(long status) {
  return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

std::string HeaderValue(std::string_view block, std::string_view name) {
  size_t i = block.find("\r\n");
  while (i != std::string_view::npos && i + 2 < block.size()) {
    const size_t start = i + 2;
    const size_t end = block.find("\r\n", start);
    const std::string_view line = block.substr(start, end - start);
    const size_t colon = line.find(':');
    if (colon != std::string_view::npos && EqualsNoCase(Trim(line.substr(0, colon)), name)) {
      return std::string(Trim(line.substr(colon + 1)));
    }
    i = end;
  }
  return std::string();
}

// Where a redirect of this hop leads, or empty when it is not to be followed.
std::string RedirectTarget(Request& r) {
  if (r.redirect_policy == kHttpRedirectPolicyNever) return std::string();
  const std::string location = HeaderValue(r.header_block, "Location");
  if (location.empty()) return std::string();
  std::string target;
  CURLU* u = curl_url();
  if (!u) return std::string();
  char* out = nullptr;
  if (curl_url_set(u, CURLUPART_URL, r.url.c_str(), 0) == CURLUE_OK &&
      curl_url_set(u, CURLUPART_URL, location.c_str(), CURLU_URLENCODE) == CURLUE_OK &&
      curl_url_get(u, CURLUPART_URL, &out, 0) == CURLUE_OK) {
    target = out;
  }
  curl_free(out);
  curl_url_cleanup(u);
  const bool to_https = target.compare(0, 8, "https://") == 0;
  const bool to_http = target.compare(0, 7, "http://") == 0;
  if (!to_https && !to_http) return std::string();
  if (r.hop_secure && to_http && r.redirect_policy != kHttpRedirectPolicyAlways) {
    return std::string();
  }
  return target;
}

size_t OnHeader(char* data, size_t size, size_t count, void* p) {
  Request& r = *static_cast<Request*>(p);
  const size_t n = size * count;
  r.t_io = Clock::now();
  r.response_started = true;
  r.header_bytes += static_cast<uint32_t>(n);
  std::string_view line(data, n);
  while (!line.empty() && (line.back() == '\r' || line.back() == '\n')) line.remove_suffix(1);
  if (line.substr(0, 5) == "HTTP/") {
    r.header_block.assign(line);
    r.header_block += "\r\n";
    const size_t sp = line.find(' ');
    r.block_status = sp == std::string_view::npos ? 0 : std::atol(std::string(line.substr(sp + 1, 3)).c_str());
    return n;
  }
  if (!line.empty()) {
    r.header_block.append(line);
    r.header_block += "\r\n";
    return n;
  }
  // The end of one response's headers: interim ones are dropped, redirects may be
  // followed, and the rest is the final response.
  if (r.block_status >= 100 && r.block_status < 200) {
    r.header_block.clear();
    return n;
  }
  if (IsRedirect(r.block_status)) {
    std::string target = RedirectTarget(r);
    if (!target.empty()) {
      r.redirect_pending = true;
      r.redirect_url = std::move(target);
      return n;
    }
  }
  r.raw_headers = r.header_block + "\r\n";
  r.status = r.block_status;
  r.headers_ready = true;
  return n;
}

size_t OnWrite(char* data, size_t size, size_t count, void* p) {
  Request& r = *static_cast<Request*>(p);
  const size_t n = size * count;
  r.t_io = Clock::now();
  if (r.redirect_pending || !r.headers_ready) return n;  // the body of a redirect
  if (r.Buffered() >= kBufferCap) {
    r.paused = true;
    return CURL_WRITEFUNC_PAUSE;
  }
  if (r.buffer_head > 0 && r.buffer_head >= r.buffer.size() / 2) {
    r.buffer.erase(0, r.buffer_head);
    r.buffer_head = 0;
  }
  r.buffer.append(data, n);
  return n;
}

// ---- the transfer (event thread, core->mu held) ----------------------------------------

void EndTransfer(Request& r) {
  if (!r.easy) return;
  long sent = 0;
  if (curl_easy_getinfo(r.easy, CURLINFO_REQUEST_SIZE, &sent) == CURLE_OK && sent > 0) {
    r.request_bytes = static_cast<uint32_t>(sent);
  }
  curl_multi_remove_handle(r.core->multi, r.easy);
  curl_easy_cleanup(r.easy);
  r.easy = nullptr;
  r.paused = false;
}

void FailTransfer(Request& r, uint32_t error) {
  EndTransfer(r);
  r.done = true;
  r.error = error;
}

void SetMethod(CURL* e, const std::string& verb, bool has_body, size_t body_size) {
  if (verb == "GET" && !has_body) {
    curl_easy_setopt(e, CURLOPT_HTTPGET, 1L);
  } else if (verb == "HEAD") {
    curl_easy_setopt(e, CURLOPT_NOBODY, 1L);
  } else {
    curl_easy_setopt(e, CURLOPT_POST, 1L);
    curl_easy_setopt(e, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body_size));
    if (verb != "POST") curl_easy_setopt(e, CURLOPT_CUSTOMREQUEST, verb.c_str());
  }
}

long TlsVersion(uint32_t protocols) {
  long min = CURL_SSLVERSION_TLSv1_2, max = CURL_SSLVERSION_MAX_TLSv1_2;
  if (protocols & kHttpSecureProtocolTls1_3) {
    min = CURL_SSLVERSION_TLSv1_3;
    max = CURL_SSLVERSION_MAX_TLSv1_3;
  }
  if (protocols & kHttpSecureProtocolTls1_2) {
    min = CURL_SSLVERSION_TLSv1_2;
    if (!(protocols & kHttpSecureProtocolTls1_3)) max = CURL_SSLVERSION_MAX_TLSv1_2;
  }
  if (protocols & kHttpSecureProtocolTls1_1) {
    min = CURL_SSLVERSION_TLSv1_1;
    if (!(protocols & (kHttpSecureProtocolTls1_2 | kHttpSecureProtocolTls1_3))) {
      max = CURL_SSLVERSION_MAX_TLSv1_1;
    }
  }
  if (protocols & kHttpSecureProtocolTls1) {
    min = CURL_SSLVERSION_TLSv1_0;
    if (!(protocols & (kHttpSecureProtocolTls1_1 | kHttpSecureProtocolTls1_2 |
                       kHttpSecureProtocolTls1_3))) {
      max = CURL_SSLVERSION_MAX_TLSv1_0;
    }
  }
  return min | max;
}

// Starts one hop of the transfer on r.url with r.hop_verb. False when curl refuses.
bool StartHop(Request& r) {
  Core& core = *r.core;
  CURL* e = curl_easy_init();
  if (!e) return false;
  r.easy = e;
  r.socket_opened = r.prereq_fired = r.request_sent_noted = r.response_started = false;
  r.redirect_pending = false;
  r.header_block.clear();
  r.block_status = 0;
  r.header_bytes = 0;
  r.body_offset = 0;
  r.upload_done = !r.hop_has_body || r.body.empty();
  r.t_start = r.t_io = Clock::now();

  // The request line carries the target byte for byte; the URL given to curl only
  // names the server (and the path for cookies, when curl can parse it).
  r.url = r.hop_base + r.hop_target;
  bool parsable = false;
  if (CURLU* u = curl_url()) {
    parsable = curl_url_set(u, CURLUPART_URL, r.url.c_str(), 0) == CURLUE_OK;
    curl_url_cleanup(u);
  }
  curl_easy_setopt(e, CURLOPT_URL, parsable ? r.url.c_str() : (r.hop_base + "/").c_str());
  curl_easy_setopt(e, CURLOPT_PRIVATE, static_cast<void*>(&r));
  curl_easy_setopt(e, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(e, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  curl_easy_setopt(e, CURLOPT_PATH_AS_IS, 1L);
  curl_easy_setopt(e, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(e, CURLOPT_PROTOCOLS_STR, "http,https");
  if (!core.agent.empty()) curl_easy_setopt(e, CURLOPT_USERAGENT, core.agent.c_str());
  curl_easy_setopt(e, CURLOPT_HTTPHEADER, r.header_list);
  SetMethod(e, r.hop_verb, r.hop_has_body, r.hop_has_body ? r.body.size() : 0);
  curl_easy_setopt(e, CURLOPT_READFUNCTION, OnRead);
  curl_easy_setopt(e, CURLOPT_READDATA, static_cast<void*>(&r));
  curl_easy_setopt(e, CURLOPT_SEEKFUNCTION, OnSeek);
  curl_easy_setopt(e, CURLOPT_SEEKDATA, static_cast<void*>(&r));
  curl_easy_setopt(e, CURLOPT_HEADERFUNCTION, OnHeader);
  curl_easy_setopt(e, CURLOPT_HEADERDATA, static_cast<void*>(&r));
  curl_easy_setopt(e, CURLOPT_WRITEFUNCTION, OnWrite);
  curl_easy_setopt(e, CURLOPT_WRITEDATA, static_cast<void*>(&r));
  curl_easy_setopt(e, CURLOPT_OPENSOCKETFUNCTION, OnOpenSocket);
  curl_easy_setopt(e, CURLOPT_OPENSOCKETDATA, static_cast<void*>(&r));
  curl_easy_setopt(e, CURLOPT_PREREQFUNCTION, OnPrereq);
  curl_easy_setopt(e, CURLOPT_PREREQDATA, static_cast<void*>(&r));
  // Connecting, sending and receiving are timed by the event loop; curl's own limit
  // would also count the name resolution, which has none.
  curl_easy_setopt(e, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(INT_MAX));
  curl_easy_setopt(e, CURLOPT_SSLVERSION, TlsVersion(core.secure_protocols));
  curl_easy_setopt(e, CURLOPT_SSL_VERIFYPEER,
                   (r.security_flags & kHttpSecurityFlagIgnoreUnknownCa) ? 0L : 1L);
  curl_easy_setopt(e, CURLOPT_SSL_VERIFYHOST,
                   (r.security_flags & kHttpSecurityFlagIgnoreCertCnInvalid) ? 0L : 2L);
  // The proxy was fixed when the session opened; "" keeps curl from the environment.
  // A plain request through a proxy names the whole URL on its request line.
  const std::string& proxy = r.hop_secure ? core.https_proxy : core.http_proxy;
  const bool proxied = !proxy.empty() && !Bypassed(core.bypass, r.hop_host);
  curl_easy_setopt(e, CURLOPT_PROXY, proxied ? proxy.c_str() : "");
  r.request_line_target = (proxied && !r.hop_secure) ? r.url : r.hop_target;
  curl_easy_setopt(e, CURLOPT_REQUEST_TARGET, r.request_line_target.c_str());
  curl_easy_setopt(e, CURLOPT_SHARE, core.share);
  curl_easy_setopt(e, CURLOPT_COOKIEFILE, "");
  if (curl_multi_add_handle(core.multi, e) != CURLM_OK) {
    curl_easy_cleanup(e);
    r.easy = nullptr;
    return false;
  }
  return true;
}

std::string BaseUrl(bool secure, std::string host, uint16_t port) {
  if (host.find(':') != std::string::npos && host.front() != '[') host = "[" + host + "]";
  if (port == 0) port = secure ? 443 : 80;
  return std::string(secure ? "https://" : "http://") + host + ":" + std::to_string(port);
}

bool StartTransfer(Request& r) {
  r.started = true;
  std::vector<std::string> lines = r.headers;
  bool has_type = false;
  for (const std::string& h : lines) {
    const size_t colon = h.find(':');
    if (colon != std::string::npos && EqualsNoCase(Trim(std::string_view(h).substr(0, colon)), "Content-Type")) {
      has_type = true;
    }
  }
  // curl's own additions that WinHTTP does not make.
  lines.emplace_back("Accept:");
  lines.emplace_back("Expect:");
  if (!has_type) lines.emplace_back("Content-Type:");
  for (const std::string& line : lines) {
    curl_slist* next = curl_slist_append(r.header_list, line.c_str());
    if (!next) return false;
    r.header_list = next;
  }
  r.hop_secure = r.secure;
  r.hop_host = r.host;
  r.hop_base = BaseUrl(r.secure, r.host, r.port);
  r.hop_target = r.target;
  r.hop_verb = r.verb;
  r.hop_has_body = !r.body.empty() || (r.verb != "GET" && r.verb != "HEAD");
  return StartHop(r);
}

void FollowRedirect(Request& r) {
  EndTransfer(r);
  if (++r.redirects > kMaxRedirects) {
    r.done = true;
    r.error = kHttpErrorRedirectFailed;
    return;
  }
  const long status = r.block_status;
  if (status == 303 && r.hop_verb != "HEAD") {
    r.hop_verb = "GET";
    r.hop_has_body = false;
  } else if ((status == 301 || status == 302) && r.hop_verb == "POST") {
    r.hop_verb = "GET";
    r.hop_has_body = false;
  }
  // Split the new URL into the server and the request-line target.
  bool ok = false;
  if (CURLU* u = curl_url()) {
    char *scheme = nullptr, *host = nullptr, *port = nullptr, *path = nullptr, *query = nullptr;
    if (curl_url_set(u, CURLUPART_URL, r.redirect_url.c_str(), 0) == CURLUE_OK &&
        curl_url_get(u, CURLUPART_SCHEME, &scheme, 0) == CURLUE_OK &&
        curl_url_get(u, CURLUPART_HOST, &host, 0) == CURLUE_OK &&
        curl_url_get(u, CURLUPART_PORT, &port, CURLU_DEFAULT_PORT) == CURLUE_OK &&
        curl_url_get(u, CURLUPART_PATH, &path, 0) == CURLUE_OK) {
      curl_url_get(u, CURLUPART_QUERY, &query, 0);
      r.hop_secure = std::strcmp(scheme, "https") == 0;
      r.hop_host = host;
      if (r.hop_host.size() > 2 && r.hop_host.front() == '[') {
        r.hop_host = r.hop_host.substr(1, r.hop_host.size() - 2);
      }
      r.hop_base = BaseUrl(r.hop_secure, r.hop_host, static_cast<uint16_t>(std::atoi(port)));
      r.hop_target = std::string(path) + (query ? std::string("?") + query : std::string());
      ok = true;
    }
    for (char* p : {scheme, host, port, path, query}) curl_free(p);
    curl_url_cleanup(u);
  }
  if (!ok) {
    r.done = true;
    r.error = kHttpErrorRedirectFailed;
    return;
  }
  NotifyText(r, kHttpStatusRedirect, r.redirect_url);
  if (!StartHop(r)) {
    r.done = true;
    r.error = kHttpErrorInternal;
  }
}

// WINHTTP_CALLBACK_STATUS_FLAG_* for a certificate that failed verification.
uint32_t CertificateFailureFlags(CURL* easy, CURLcode code) {
  if (code != CURLE_PEER_FAILED_VERIFICATION) return 0x80000000;  // security channel error
  long verify = 0;
  curl_easy_getinfo(easy, CURLINFO_SSL_VERIFYRESULT, &verify);
  switch (verify) {
    case 0: return 0x10;  // the chain was fine, so the name did not match
    case 9:               // not yet valid
    case 10: return 0x20;  // expired
    case 2:
    case 18:
    case 19:
    case 20:
    case 21: return 0x08;  // no trusted issuer
    case 23: return 0x04;  // revoked
    default: return 0x02;
  }
}

void OnTransferDone(Request& r, CURLcode code) {
  if (code == CURLE_OK && r.redirect_pending) {
    FollowRedirect(r);
    return;
  }
  if (MapCurlError(code) == kHttpErrorSecureFailure) {
    NotifyNumber(r, kHttpStatusSecureFailure, CertificateFailureFlags(r.easy, code));
  }
  EndTransfer(r);
  r.done = true;
  if (code != CURLE_OK) {
    r.error = MapCurlError(code);
  } else if (!r.headers_ready) {
    r.error = kHttpErrorInvalidServerResponse;
  }
}

// The deadline of the phase the transfer is in, or none.
bool Deadline(const Request& r, Clock::time_point* when) {
  if (!r.easy || r.paused || r.done) return false;
  int32_t ms;
  Clock::time_point from;
  if (r.prereq_fired) {
    ms = !r.upload_done ? r.timeouts.send
         : r.headers_ready || r.redirect_pending ? r.timeouts.receive
                                                 : r.timeouts.receive_response;
    from = r.t_io;
  } else if (r.socket_opened) {
    ms = r.timeouts.connect;
    from = r.t_socket;
  } else {
    ms = r.timeouts.resolve;
    from = r.t_start;
  }
  if (ms <= 0) return false;
  *when = from + std::chrono::milliseconds(ms);
  return true;
}

// Moves one request on as far as what has arrived allows, queueing the notifications
// of each step that completes.
void Advance(Request& r) {
  if (r.closed_by_app || r.freed) return;
  if (r.send_called && !r.started) {
    if (!StartTransfer(r)) FailTransfer(r, kHttpErrorInternal);
  }
  if (r.paused && r.easy && r.Buffered() < kBufferCap / 2) {
    r.paused = false;
    curl_easy_pause(r.easy, CURLPAUSE_CONT);  // may deliver held data at once
  }
  switch (r.op) {
    case Op::kSend:
      if (r.response_started || (r.prereq_fired && r.upload_done) || (r.done && !r.error)) {
        if (!r.request_sent_noted) {
          r.request_sent_noted = true;
          long sent = 0;
          if (r.easy) curl_easy_getinfo(r.easy, CURLINFO_REQUEST_SIZE, &sent);
          const uint32_t head = sent > 0 ? static_cast<uint32_t>(sent) : r.request_bytes;
          NotifyNumber(r, kHttpStatusRequestSent, head + static_cast<uint32_t>(r.body.size()));
        }
        r.send_complete = true;
        r.op = Op::kNone;
        Notify(r, kHttpStatusSendRequestComplete);
      } else if (r.done) {
        NotifyError(r, kHttpApiSendRequest, r.error);
      }
      break;
    case Op::kReceive:
      if (r.headers_ready) {
        r.headers_delivered = true;
        r.op = Op::kNone;
        Notify(r, kHttpStatusReceivingResponse);
        NotifyNumber(r, kHttpStatusResponseReceived, r.header_bytes);
        Notify(r, kHttpStatusHeadersAvailable);
      } else if (r.done) {
        NotifyError(r, kHttpApiReceiveResponse, r.error ? r.error : kHttpErrorInvalidServerResponse);
      }
      break;
    case Op::kQuery:
    case Op::kRead: {
      const size_t avail = r.Buffered();
      if (avail == 0 && !r.done) {
        if (!r.waiting_noted) {
          r.waiting_noted = true;
          Notify(r, kHttpStatusReceivingResponse);
        }
        break;
      }
      if (avail == 0 && r.error) {
        r.waiting_noted = false;
        NotifyError(r, r.op == Op::kQuery ? kHttpApiQueryDataAvailable : kHttpApiReadData, r.error);
        break;
      }
      if (r.waiting_noted) {
        r.waiting_noted = false;
        NotifyNumber(r, kHttpStatusResponseReceived, static_cast<uint32_t>(avail));
      }
      if (r.op == Op::kQuery) {
        r.op = Op::kNone;
        NotifyNumber(r, kHttpStatusDataAvailable,
                     static_cast<uint32_t>(std::min<size_t>(avail, UINT32_MAX)));
      } else {
        const size_t n = std::min<size_t>(avail, r.read_length);
        if (n) std::memcpy(r.read_buffer, r.buffer.data() + r.buffer_head, n);
        r.buffer_head += n;
        if (r.buffer_head == r.buffer.size()) {
          r.buffer.clear();
          r.buffer_head = 0;
        }
        void* target = r.read_buffer;
        r.read_buffer = nullptr;
        NotifyReadComplete(r, target, static_cast<uint32_t>(n));
      }
      break;
    }
    case Op::kNone:
      break;
  }
}

// Queues HANDLE_CLOSING for a handle the caller has closed once nothing hangs below
// it, and lets its parent follow.
void MaybeFree(const std::shared_ptr<Handle>& h) {
  if (!h || h->freed || !h->closed_by_app || h->children > 0) return;
  h->freed = true;
  Core& core = *h->core;
  Notify(*h, kHttpStatusHandleClosing);
  if (h->kind == Kind::kRequest) {
    auto& list = core.requests;
    list.erase(std::remove(list.begin(), list.end(), h), list.end());
  }
  if (h->kind == Kind::kSession) core.finished = true;
  if (h->parent) {
    h->parent->children--;
    MaybeFree(h->parent);
  }
}

void ProcessCloses(Core& core) {
  std::vector<std::shared_ptr<Handle>> closing;
  closing.swap(core.to_close);
  for (const auto& h : closing) {
    if (h->kind == Kind::kRequest) {
      Request& r = static_cast<Request&>(*h);
      EndTransfer(r);
      switch (r.op) {
        case Op::kSend: NotifyError(r, kHttpApiSendRequest, kHttpErrorOperationCancelled); break;
        case Op::kReceive: NotifyError(r, kHttpApiReceiveResponse, kHttpErrorOperationCancelled); break;
        case Op::kQuery: NotifyError(r, kHttpApiQueryDataAvailable, kHttpErrorOperationCancelled); break;
        case Op::kRead: NotifyError(r, kHttpApiReadData, kHttpErrorOperationCancelled); break;
        case Op::kNone: break;
      }
      r.read_buffer = nullptr;
      r.buffer.clear();
      r.buffer.shrink_to_fit();
    }
    MaybeFree(h);
  }
}

void Loop(std::shared_ptr<Core> core) {
  std::unique_lock<std::mutex> lock(core->mu);
  core->loop_thread = std::this_thread::get_id();
  for (;;) {
    core->dirty = false;
    ProcessCloses(*core);
    // Work on a copy: advancing may free nothing, but closing from a callback may.
    std::vector<std::shared_ptr<Request>> requests = core->requests;
    for (const auto& r : requests) Advance(*r);
    int running = 0;
    curl_multi_perform(core->multi, &running);
    int left = 0;
    while (CURLMsg* msg = curl_multi_info_read(core->multi, &left)) {
      if (msg->msg != CURLMSG_DONE) continue;
      void* p = nullptr;
      curl_easy_getinfo(msg->easy_handle, CURLINFO_PRIVATE, &p);
      const CURLcode code = msg->data.result;
      if (p) OnTransferDone(*static_cast<Request*>(p), code);
    }
    const auto now = Clock::now();
    auto next = Clock::time_point::max();
    for (const auto& r : requests) {
      Clock::time_point when;
      if (Deadline(*r, &when)) {
        if (when <= now) {
          FailTransfer(*r, kHttpErrorTimeout);
        } else {
          next = std::min(next, when);
        }
      }
    }
    for (const auto& r : requests) Advance(*r);
    const bool finish = core->finished;
    std::deque<Note> notes;
    notes.swap(core->notes);
    lock.unlock();
    for (Note& n : notes) Deliver(n);
    notes.clear();
    requests.clear();
    lock.lock();
    if (finish) break;
    if (core->dirty || !core->notes.empty() || !core->to_close.empty()) continue;
    long curl_ms = -1;
    curl_multi_timeout(core->multi, &curl_ms);
    int wait_ms = curl_ms < 0 ? INT_MAX : static_cast<int>(std::min<long>(curl_ms, INT_MAX));
    if (next != Clock::time_point::max()) {
      const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(next - now).count() + 1;
      wait_ms = static_cast<int>(std::min<long long>(wait_ms, ms));
    }
    lock.unlock();
    curl_multi_poll(core->multi, nullptr, 0, wait_ms, nullptr);
    lock.lock();
  }
  // Every handle below the session has been freed, so no transfer is left.
  for (const auto& r : core->requests) EndTransfer(*r);
  core->requests.clear();
  curl_multi_cleanup(core->multi);
  core->multi = nullptr;
  curl_share_cleanup(core->share);
  core->share = nullptr;
}

void GlobalInit() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

template <class T>
std::shared_ptr<T> As(const std::shared_ptr<Handle>& h, Kind kind) {
  if (!h || h->kind != kind) return nullptr;
  return std::static_pointer_cast<T>(h);
}

// Runs an entry point with every failure turned into a result, so no exception
// leaves the seam.
template <class F>
auto Guarded(F&& f, decltype(f()) failure) -> decltype(f()) {
  try {
    return f();
  } catch (const std::bad_alloc&) {
    t_last_error = kHttpErrorNotEnoughMemory;
  } catch (...) {
    t_last_error = kHttpErrorInternal;
  }
  return failure;
}

// Looks a handle up and locks its session: the pair every entry point starts with.
struct Locked {
  std::shared_ptr<Core> core;  // outlives the lock
  std::shared_ptr<Handle> h;
  std::unique_lock<std::mutex> lock;
  explicit Locked(HttpHandle handle) : h(Lookup(handle)) {
    if (h) {
      core = h->core;
      lock = std::unique_lock<std::mutex>(core->mu);
      if (h->closed_by_app) h.reset();
    }
  }
};

int32_t* TimeoutField(Timeouts& t, uint32_t option) {
  switch (option) {
    case kHttpOptionResolveTimeout: return &t.resolve;
    case kHttpOptionConnectTimeout: return &t.connect;
    case kHttpOptionSendTimeout: return &t.send;
    case kHttpOptionReceiveTimeout: return &t.receive;
    case kHttpOptionReceiveResponseTimeout: return &t.receive_response;
    default: return nullptr;
  }
}

bool PutBytes(const void* value, uint32_t size, void* buffer, uint32_t* length) {
  if (!buffer || *length < size) {
    *length = size;
    return Fail(kHttpErrorInsufficientBuffer);
  }
  std::memcpy(buffer, value, size);
  *length = size;
  return true;
}

bool PutText(const std::u16string& text, void* buffer, uint32_t* length) {
  const uint32_t needed = static_cast<uint32_t>((text.size() + 1) * sizeof(char16_t));
  if (!buffer || *length < needed) {
    *length = needed;
    return Fail(kHttpErrorInsufficientBuffer);
  }
  std::memcpy(buffer, text.c_str(), needed);
  *length = needed - sizeof(char16_t);
  return true;
}

const char* HeaderNameForLevel(uint32_t level) {
  switch (level) {
    case 1: return "Content-Type";
    case 3: return "Content-Encoding";
    case 5: return "Content-Length";
    case 6: return "Content-Language";
    case 9: return "Date";
    case 10: return "Expires";
    case 11: return "Last-Modified";
    case 23: return "Connection";
    case 33: return "Location";
    case 37: return "Server";
    case 43: return "Set-Cookie";
    case 44: return "Cookie";
    case 48: return "Cache-Control";
    case 53: return "Age";
    case 54: return "ETag";
    case 63: return "Transfer-Encoding";
    default: return nullptr;
  }
}

}  // namespace

// Used by http_url.cpp.
void HttpSetLastErrorInternal(uint32_t error) { t_last_error = error; }

uint32_t HttpLastError() { return t_last_error; }

HttpHandle HttpOpen(std::u16string_view agent, uint32_t access_type, std::u16string_view proxy,
                    std::u16string_view bypass, uint32_t flags) {
  return Guarded(
      [&]() -> HttpHandle {
        if (!(flags & kHttpFlagAsync)) return FailHandle(kHttpErrorInvalidParameter);
        if (access_type != kHttpAccessTypeDefaultProxy && access_type != kHttpAccessTypeNoProxy &&
            access_type != kHttpAccessTypeNamedProxy) {
          return FailHandle(kHttpErrorInvalidParameter);
        }
        if (access_type == kHttpAccessTypeNamedProxy && proxy.empty()) {
          return FailHandle(kHttpErrorInvalidParameter);
        }
        GlobalInit();
        auto core = std::make_shared<Core>();
        core->agent = Narrow(agent);
        if (access_type == kHttpAccessTypeNamedProxy) {
          ParseProxyList(Narrow(proxy), &core->http_proxy, &core->https_proxy);
          core->bypass = ParseBypassList(Narrow(bypass));
        }
        core->multi = curl_multi_init();
        core->share = curl_share_init();
        if (!core->multi || !core->share) {
          if (core->multi) curl_multi_cleanup(core->multi);
          if (core->share) curl_share_cleanup(core->share);
          return FailHandle(kHttpErrorNotEnoughMemory);
        }
        curl_share_setopt(core->share, CURLSHOPT_SHARE, CURL_LOCK_DATA_COOKIE);
        auto session = std::make_shared<Handle>(Kind::kSession);
        session->core = core;
        std::thread(Loop, core).detach();
        return Register(session);
      },
      nullptr);
}

HttpHandle HttpConnect(HttpHandle session, std::u16string_view server, uint16_t port) {
  return Guarded(
      [&]() -> HttpHandle {
        Locked l(session);
        if (!l.h) return FailHandle(kHttpErrorInvalidHandle);
        if (l.h->kind != Kind::kSession) return FailHandle(kHttpErrorIncorrectHandleType);
        if (server.empty()) return FailHandle(kHttpErrorInvalidParameter);
        auto c = std::make_shared<Connect>();
        c->core = l.h->core;
        c->parent = l.h;
        c->callback = l.h->callback;
        c->mask = l.h->mask;
        c->timeouts = l.h->timeouts;
        c->host = Narrow(server);
        c->port = port;
        l.h->children++;
        return Register(c);
      },
      nullptr);
}

HttpHandle HttpOpenRequest(HttpHandle connect, std::u16string_view verb,
                           std::u16string_view object_name, uint32_t flags) {
  return Guarded(
      [&]() -> HttpHandle {
        Locked l(connect);
        if (!l.h) return FailHandle(kHttpErrorInvalidHandle);
        auto c = As<Connect>(l.h, Kind::kConnect);
        if (!c) return FailHandle(kHttpErrorIncorrectHandleType);
        auto r = std::make_shared<Request>();
        r->core = c->core;
        r->parent = c;
        r->callback = c->callback;
        r->mask = c->mask;
        r->timeouts = c->timeouts;
        r->host = c->host;
        r->port = c->port;
        r->secure = (flags & kHttpFlagSecure) != 0;
        r->verb = verb.empty() ? std::string("GET") : Narrow(verb);
        r->target = EscapeObjectName(object_name, flags);
        c->children++;
        c->core->requests.push_back(r);
        return Register(r);
      },
      nullptr);
}

bool HttpSetStatusCallback(HttpHandle handle, HttpStatusCallback callback, uint32_t mask) {
  return Guarded(
      [&]() -> bool {
        Locked l(handle);
        if (!l.h) return Fail(kHttpErrorInvalidHandle);
        l.h->callback = callback;
        l.h->mask = callback ? mask : 0;
        return true;
      },
      false);
}

bool HttpSetOption(HttpHandle handle, uint32_t option, const void* buffer, uint32_t length) {
  return Guarded(
      [&]() -> bool {
        Locked l(handle);
        if (!l.h) return Fail(kHttpErrorInvalidHandle);
        if (!buffer) return Fail(kHttpErrorInvalidParameter);
        Handle& h = *l.h;
        auto u32 = [&](uint32_t* out) {
          if (length < sizeof(uint32_t)) return Fail(kHttpErrorInvalidParameter);
          std::memcpy(out, buffer, sizeof(uint32_t));
          return true;
        };
        if (int32_t* field = TimeoutField(h.timeouts, option)) {
          uint32_t v;
          if (!u32(&v)) return false;
          *field = static_cast<int32_t>(v);
          return true;
        }
        switch (option) {
          case kHttpOptionContextValue:
            if (length < sizeof(uintptr_t)) return Fail(kHttpErrorInvalidParameter);
            std::memcpy(&h.context, buffer, sizeof(uintptr_t));
            return true;
          case kHttpOptionSecurityFlags: {
            if (h.kind != Kind::kRequest) return Fail(kHttpErrorIncorrectHandleType);
            return u32(&static_cast<Request&>(h).security_flags);
          }
          case kHttpOptionRedirectPolicy: {
            if (h.kind != Kind::kRequest) return Fail(kHttpErrorIncorrectHandleType);
            uint32_t v;
            if (!u32(&v)) return false;
            if (v > kHttpRedirectPolicyAlways) return Fail(kHttpErrorInvalidParameter);
            static_cast<Request&>(h).redirect_policy = v;
            return true;
          }
          case kHttpOptionSecureProtocols: {
            if (h.kind != Kind::kSession) return Fail(kHttpErrorIncorrectHandleType);
            uint32_t v;
            if (!u32(&v)) return false;
            if (!(v & (kHttpSecureProtocolTls1 | kHttpSecureProtocolTls1_1 |
                       kHttpSecureProtocolTls1_2 | kHttpSecureProtocolTls1_3))) {
              return Fail(kHttpErrorInvalidParameter);
            }
            h.core->secure_protocols = v;
            return true;
          }
          default:
            return Fail(kHttpErrorInvalidOption);
        }
      },
      false);
}

bool HttpQueryOption(HttpHandle handle, uint32_t option, void* buffer, uint32_t* length) {
  return Guarded(
      [&]() -> bool {
        if (!length) return Fail(kHttpErrorInvalidParameter);
        Locked l(handle);
        if (!l.h) return Fail(kHttpErrorInvalidHandle);
        Handle& h = *l.h;
        if (int32_t* field = TimeoutField(h.timeouts, option)) {
          return PutBytes(field, sizeof(int32_t), buffer, length);
        }
        switch (option) {
          case kHttpOptionContextValue:
            return PutBytes(&h.context, sizeof(uintptr_t), buffer, length);
          case kHttpOptionSecurityFlags:
            if (h.kind != Kind::kRequest) return Fail(kHttpErrorIncorrectHandleType);
            return PutBytes(&static_cast<Request&>(h).security_flags, sizeof(uint32_t), buffer,
                            length);
          case kHttpOptionRedirectPolicy:
            if (h.kind != Kind::kRequest) return Fail(kHttpErrorIncorrectHandleType);
            return PutBytes(&static_cast<Request&>(h).redirect_policy, sizeof(uint32_t), buffer,
                            length);
          case kHttpOptionSecureProtocols:
            if (h.kind != Kind::kSession) return Fail(kHttpErrorIncorrectHandleType);
            return PutBytes(&h.core->secure_protocols, sizeof(uint32_t), buffer, length);
          default:
            return Fail(kHttpErrorInvalidOption);
        }
      },
      false);
}

namespace {

bool AddHeaders(Request& r, std::u16string_view text, uint32_t modifiers) {
  const std::string bytes = Narrow(text);
  size_t i = 0;
  std::vector<std::pair<std::string, std::string>> parsed;
  while (i < bytes.size()) {
    size_t end = bytes.find('\n', i);
    if (end == std::string::npos) end = bytes.size();
    const std::string_view line = Trim(std::string_view(bytes).substr(i, end - i));
    i = end + 1;
    if (line.empty()) continue;
    const size_t colon = line.find(':');
    if (colon == std::string_view::npos || colon == 0) return Fail(kErrorInvalidHeader);
    parsed.emplace_back(std::string(Trim(line.substr(0, colon))),
                        std::string(Trim(line.substr(colon + 1))));
  }
  for (const auto& [name, value] : parsed) {
    auto same = [&](const std::string& h) {
      const size_t colon = h.find(':');
      return EqualsNoCase(std::string_view(h).substr(0, colon), name);
    };
    const bool exists = std::any_of(r.headers.begin(), r.headers.end(), same);
    if (modifiers & kHttpAddReqFlagReplace) {
      r.headers.erase(std::remove_if(r.headers.begin(), r.headers.end(), same), r.headers.end());
      if (value.empty()) continue;
    } else if ((modifiers & kHttpAddReqFlagAddIfNew) && exists) {
      return Fail(kErrorHeaderAlreadyExists);
    }
    r.headers.push_back(name + ": " + value);
  }
  return true;
}

}  // namespace

bool HttpAddRequestHeaders(HttpHandle request, std::u16string_view headers, uint32_t modifiers) {
  return Guarded(
      [&]() -> bool {
        Locked l(request);
        if (!l.h) return Fail(kHttpErrorInvalidHandle);
        auto r = As<Request>(l.h, Kind::kRequest);
        if (!r) return Fail(kHttpErrorIncorrectHandleType);
        if (r->send_called) return Fail(kHttpErrorIncorrectHandleState);
        if (headers.empty()) return Fail(kHttpErrorInvalidParameter);
        return AddHeaders(*r, headers, modifiers);
      },
      false);
}

bool HttpSendRequest(HttpHandle request, std::u16string_view headers, const void* optional,
                     uint32_t optional_length, uint32_t total_length, uintptr_t context) {
  return Guarded(
      [&]() -> bool {
        Locked l(request);
        if (!l.h) return Fail(kHttpErrorInvalidHandle);
        auto r = As<Request>(l.h, Kind::kRequest);
        if (!r) return Fail(kHttpErrorIncorrectHandleType);
        if (r->send_called) return Fail(kHttpErrorIncorrectHandleState);
        if ((optional_length > 0 && !optional) || total_length != optional_length) {
          return Fail(kHttpErrorInvalidParameter);
        }
        if (!headers.empty() && !AddHeaders(*r, headers, kHttpAddReqFlagAdd)) return false;
        r->body.assign(static_cast<const char*>(optional), optional_length);
        r->context = context;
        r->send_called = true;
        r->op = Op::kSend;
        Wake(*r->core);
        return true;
      },
      false);
}

bool HttpReceiveResponse(HttpHandle request) {
  return Guarded(
      [&]() -> bool {
        Locked l(request);
        if (!l.h) return Fail(kHttpErrorInvalidHandle);
        auto r = As<Request>(l.h, Kind::kRequest);
        if (!r) return Fail(kHttpErrorIncorrectHandleType);
        if (!r->send_complete || r->receive_called || r->op != Op::kNone) {
          return Fail(kHttpErrorIncorrectHandleState);
        }
        r->receive_called = true;
        r->op = Op::kReceive;
        Wake(*r->core);
        return true;
      },
      false);
}

bool HttpQueryHeaders(HttpHandle request, uint32_t info_level, const char16_t* name, void* buffer,
                      uint32_t* length, uint32_t* index) {
  return Guarded(
      [&]() -> bool {
        if (!length) return Fail(kHttpErrorInvalidParameter);
        Locked l(request);
        if (!l.h) return Fail(kHttpErrorInvalidHandle);
        auto r = As<Request>(l.h, Kind::kRequest);
        if (!r) return Fail(kHttpErrorIncorrectHandleType);
        if (!r->headers_delivered) return Fail(kHttpErrorIncorrectHandleState);
        const bool number = (info_level & kHttpQueryFlagNumber) != 0;
        const uint32_t level = info_level & 0xFFFF;
        std::string text;
        switch (level) {
          case kHttpQueryRawHeadersCrlf:
            text = r->raw_headers;
            break;
          case kHttpQueryRawHeaders: {
            // Lines separated by NUL characters, ending with an empty line.
            std::string_view all = r->raw_headers;
            size_t i = 0;
            while (i < all.size()) {
              const size_t end = all.find("\r\n", i);
              if (end == std::string_view::npos || end == i) break;
              text.append(all.substr(i, end - i));
              text.push_back('\0');
              i = end + 2;
            }
            break;
          }
          case kHttpQueryStatusCode:
            text = std::to_string(r->status);
            break;
          case kHttpQueryVersion:
          case kHttpQueryStatusText: {
            const std::string_view status_line =
                std::string_view(r->raw_headers).substr(0, r->raw_headers.find("\r\n"));
            const size_t sp1 = status_line.find(' ');
            if (level == kHttpQueryVersion) {
              text = std::string(status_line.substr(0, sp1));
            } else {
              const size_t sp2 =
                  sp1 == std::string_view::npos ? sp1 : status_line.find(' ', sp1 + 1);
              if (sp2 != std::string_view::npos) text = std::string(status_line.substr(sp2 + 1));
            }
            break;
          }
          default: {
            std::string header;
            if (level == kHttpQueryCustom) {
              if (!name) return Fail(kHttpErrorInvalidParameter);
              header = Narrow(std::u16string_view(name));
            } else if (const char* known = HeaderNameForLevel(level)) {
              header = known;
            } else {
              return Fail(kHttpErrorHeaderNotFound);
            }
            // The index-th occurrence, counting from 0.
            uint32_t wanted = index ? *index : 0, seen = 0;
            bool found = false;
            std::string_view all = r->raw_headers;
            size_t i = all.find("\r\n");
            while (i != std::string_view::npos && i + 2 < all.size()) {
              const size_t start = i + 2;
              const size_t end = all.find("\r\n", start);
              const std::string_view line = all.substr(start, end - start);
              const size_t colon = line.find(':');
              if (colon != std::string_view::npos &&
                  EqualsNoCase(Trim(line.substr(0, colon)), header) && seen++ == wanted) {
                text = std::string(Trim(line.substr(colon + 1)));
                found = true;
                break;
              }
              i = end;
            }
            if (!found) return Fail(kHttpErrorHeaderNotFound);
            break;
          }
        }
        bool ok;
        if (number) {
          if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos ||
              text.size() > 10) {
            return Fail(kErrorInvalidData);
          }
          const unsigned long long v = std::stoull(text);
          if (v > UINT32_MAX) return Fail(kErrorInvalidData);
          const uint32_t value = static_cast<uint32_t>(v);
          ok = PutBytes(&value, sizeof(value), buffer, length);
        } else {
          ok = PutText(Utf8ToUtf16(text), buffer, length);
        }
        if (ok && index) ++*index;
        return ok;
      },
      false);
}

bool HttpQueryDataAvailable(HttpHandle request) {
  return Guarded(
      [&]() -> bool {
        Locked l(request);
        if (!l.h) return Fail(kHttpErrorInvalidHandle);
        auto r = As<Request>(l.h, Kind::kRequest);
        if (!r) return Fail(kHttpErrorIncorrectHandleType);
        if (!r->headers_delivered || r->op != Op::kNone) return Fail(kHttpErrorIncorrectHandleState);
        r->op = Op::kQuery;
        Wake(*r->core);
        return true;
      },
      false);
}

bool HttpReadData(HttpHandle request, void* buffer, uint32_t bytes_to_read) {
  return Guarded(
      [&]() -> bool {
        Locked l(request);
        if (!l.h) return Fail(kHttpErrorInvalidHandle);
        auto r = As<Request>(l.h, Kind::kRequest);
        if (!r) return Fail(kHttpErrorIncorrectHandleType);
        if (!buffer) return Fail(kHttpErrorInvalidParameter);
        if (!r->headers_delivered || r->op != Op::kNone) return Fail(kHttpErrorIncorrectHandleState);
        r->op = Op::kRead;
        r->read_buffer = buffer;
        r->read_length = bytes_to_read;
        Wake(*r->core);
        return true;
      },
      false);
}

bool HttpCloseHandle(HttpHandle handle) {
  return Guarded(
      [&]() -> bool {
        std::shared_ptr<Handle> h = Unregister(handle);
        if (!h) return Fail(kHttpErrorInvalidHandle);
        std::lock_guard<std::mutex> lock(h->core->mu);
        h->closed_by_app = true;
        h->core->to_close.push_back(h);
        Wake(*h->core);
        return true;
      },
      false);
}

}  // namespace tpcsdk::os
