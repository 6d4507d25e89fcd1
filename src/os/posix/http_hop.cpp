// One request on libcurl, hop by hop: the easy handle's set-up, curl's callbacks, the
// redirects followed the way WinHTTP follows them, and the deadlines of each phase.
// Everything here runs on the session's event thread with the session's mutex held.
#include <netdb.h>
#include <sys/socket.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include "os/posix/http_internal.h"
#include "support/text.h"
#include "support/utf.h"

namespace tpcsdk::os::curlhttp {

namespace {

// Bodies up to this size go to curl whole, to leave in the head's write. curl joins a
// body to the head only below 64 KiB; the bound stays well under it.
constexpr size_t kInlineBodyMax = 16 * 1024;

// ---- curl's callbacks --------------------------------------------------------------

size_t OnRead(char* out, size_t size, size_t count, void* p) {
  Request& r = *static_cast<Request*>(p);
  const size_t n = std::min(size * count, r.body.size() - r.body_offset);
  std::memcpy(out, r.body.data() + r.body_offset, n);
  r.body_offset += n;
  r.hop.t_io = Clock::now();
  if (r.body_offset == r.body.size()) r.hop.upload_done = true;
  return n;
}

int OnSeek(void* p, curl_off_t offset, int origin) {
  Request& r = *static_cast<Request*>(p);
  if (origin != SEEK_SET || offset < 0 || static_cast<size_t>(offset) > r.body.size()) {
    return CURL_SEEKFUNC_CANTSEEK;
  }
  r.body_offset = static_cast<size_t>(offset);
  r.hop.upload_done = r.body_offset == r.body.size();
  return CURL_SEEKFUNC_OK;
}

curl_socket_t OnOpenSocket(void* p, curlsocktype, curl_sockaddr* address) {
  Request& r = *static_cast<Request*>(p);
  if (!r.hop.socket_opened) {
    r.hop.socket_opened = true;
    r.hop.t_socket = Clock::now();
    char ip[64] = "";
    if (address->family == AF_INET || address->family == AF_INET6) {
      char host[64] = "";
      if (getnameinfo(&address->addr, address->addrlen, host, sizeof(host), nullptr, 0,
                      NI_NUMERICHOST) == 0) {
        std::memcpy(ip, host, sizeof(ip));
      }
    }
    NotifyText(r, kHttpStatusResolvingName, r.hop.host);
    NotifyText(r, kHttpStatusNameResolved, ip);
    NotifyText(r, kHttpStatusConnectingToServer, ip);
  }
  return socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}

int OnPrereq(void* p, char* primary_ip, char*, int, int) {
  Request& r = *static_cast<Request*>(p);
  r.hop.prereq_fired = true;
  r.hop.t_io = Clock::now();
  // A small body leaves with the head, in the write that follows at once.
  if (r.hop.inline_body) r.hop.upload_done = true;
  if (r.hop.socket_opened) {
    NotifyText(r, kHttpStatusConnectedToServer, primary_ip ? primary_ip : "");
    if (primary_ip) NoteAddress(r, primary_ip);
  }
  Notify(r, kHttpStatusSendingRequest);
  return CURL_PREREQFUNC_OK;
}

// Where a redirect of this hop leads, or empty when it is not to be followed.
std::string RedirectTarget(const Request& r) {
  if (r.redirect_policy == kHttpRedirectPolicyNever) return std::string();
  const std::string location = r.hop.head.Value("Location");
  if (location.empty()) return std::string();
  std::string target;
  CURLU* u = curl_url();
  if (!u) return std::string();
  char* out = nullptr;
  if (curl_url_set(u, CURLUPART_URL, r.hop.url.c_str(), 0) == CURLUE_OK &&
      curl_url_set(u, CURLUPART_URL, location.c_str(), CURLU_URLENCODE) == CURLUE_OK &&
      curl_url_get(u, CURLUPART_URL, &out, 0) == CURLUE_OK) {
    target = out;
  }
  curl_free(out);
  curl_url_cleanup(u);
  const bool to_https = target.compare(0, 8, "https://") == 0;
  const bool to_http = target.compare(0, 7, "http://") == 0;
  if (!to_https && !to_http) return std::string();
  if (r.hop.secure && to_http && r.redirect_policy != kHttpRedirectPolicyAlways) {
    return std::string();
  }
  return target;
}

size_t OnHeader(char* data, size_t size, size_t count, void* p) {
  const size_t n = size * count;
  TakeHeaderLine(*static_cast<Request*>(p), std::string_view(data, n));
  return n;
}

size_t OnWrite(char* data, size_t size, size_t count, void* p) {
  const size_t n = size * count;
  return TakeBody(*static_cast<Request*>(p), data, n) ? n : CURL_WRITEFUNC_PAUSE;
}

// ---- set-up of a hop ------------------------------------------------------------------

// A hop without a body sends no Content-Length; any verb but GET and HEAD is named on
// the request line as it stands. A small body is handed over whole, so curl puts it in
// the same write as the head (one send, one segment); a larger one is read piece by
// piece, which times its sending.
void SetMethod(CurlOptions& o, const Hop& hop, const std::string& body) {
  if (hop.verb == "HEAD") {
    o.Set(CURLOPT_NOBODY, 1L);
  } else if (!hop.has_body) {
    o.Set(CURLOPT_HTTPGET, 1L);
    if (hop.verb != "GET") o.Set(CURLOPT_CUSTOMREQUEST, hop.verb.c_str());
  } else {
    o.Set(CURLOPT_POST, 1L);
    o.Set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
    if (hop.inline_body) o.Set(CURLOPT_POSTFIELDS, body.data());
    if (hop.verb != "POST") o.Set(CURLOPT_CUSTOMREQUEST, hop.verb.c_str());
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

// True for a hop whose URL curl's parser surely takes, so that it need not be asked:
// a host name of letters, digits, dots and dashes, and a target of visible ASCII
// starting with '/' (the target's escaping leaves no blank or control character).
bool PlainUrl(const Hop& hop) {
  const std::string& host = hop.host;
  if (host.empty() || host.size() > 253 || host.front() == '.' || host.front() == '-') return false;
  for (const char c : host) {
    const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                    c == '.' || c == '-';
    if (!ok) return false;
  }
  if (hop.target.empty() || hop.target.front() != '/') return false;
  for (const char c : hop.target) {
    if (c <= 0x20 || c >= 0x7F) return false;
  }
  return true;
}

// Sets every option of the hop's easy handle; the first refusal is the result.
CURLcode Configure(Request& r, CURL* e) {
  const Settings& core = *r.core->settings;
  Hop& hop = r.hop;
  void* self = static_cast<void*>(&r);
  // The request line carries the target byte for byte; the URL given to curl only
  // names the server (and the path for cookies, when curl can parse it).
  bool parsable = PlainUrl(hop);
  if (!parsable) {
    if (CURLU* u = curl_url()) {
      parsable = curl_url_set(u, CURLUPART_URL, hop.url.c_str(), 0) == CURLUE_OK;
      curl_url_cleanup(u);
    }
  }
  const std::string server_only = parsable ? std::string() : hop.base + "/";
  // The proxy was fixed when the session opened; "" keeps curl from the environment.
  // A plain request through a proxy names the whole URL on its request line.
  const std::string& proxy = hop.secure ? core.https_proxy : core.http_proxy;
  const bool proxied = !proxy.empty() && !Bypassed(core.bypass, hop.host);
  hop.request_line = (proxied && !hop.secure) ? hop.url : hop.target;

  CurlOptions o(e);
  o.Set(CURLOPT_URL, parsable ? hop.url.c_str() : server_only.c_str())
      .Set(CURLOPT_PRIVATE, self)
      .Set(CURLOPT_NOSIGNAL, 1L)
      .Set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1))
      .Set(CURLOPT_PATH_AS_IS, 1L)
      .Set(CURLOPT_FOLLOWLOCATION, 0L)
      .Set(CURLOPT_PROTOCOLS_STR, "http,https")
      .Set(CURLOPT_HTTPHEADER, r.header_list);
  SetMethod(o, hop, r.body);
  o.Set(CURLOPT_READFUNCTION, OnRead)
      .Set(CURLOPT_READDATA, self)
      .Set(CURLOPT_SEEKFUNCTION, OnSeek)
      .Set(CURLOPT_SEEKDATA, self)
      .Set(CURLOPT_HEADERFUNCTION, OnHeader)
      .Set(CURLOPT_HEADERDATA, self)
      .Set(CURLOPT_WRITEFUNCTION, OnWrite)
      .Set(CURLOPT_WRITEDATA, self)
      .Set(CURLOPT_OPENSOCKETFUNCTION, OnOpenSocket)
      .Set(CURLOPT_OPENSOCKETDATA, self)
      .Set(CURLOPT_PREREQFUNCTION, OnPrereq)
      .Set(CURLOPT_PREREQDATA, self)
      // Connecting, sending and receiving are timed by the event loop; curl's own
      // limit would also count the name resolution, which has none.
      .Set(CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(INT_MAX))
      .Set(CURLOPT_SSLVERSION, TlsVersion(core.secure_protocols))
      .Set(CURLOPT_SSL_VERIFYPEER,
           (r.security_flags & kHttpSecurityFlagIgnoreUnknownCa) ? 0L : 1L)
      .Set(CURLOPT_SSL_VERIFYHOST,
           (r.security_flags & kHttpSecurityFlagIgnoreCertCnInvalid) ? 0L : 2L)
      .Set(CURLOPT_PROXY, proxied ? proxy.c_str() : "")
      // The agent goes in the header list (see StartTransfer); through a proxy curl
      // also needs it for the tunnel's CONNECT, which takes no header of the list.
      .Set(CURLOPT_USERAGENT, proxied && !core.agent.empty() ? core.agent.c_str() : nullptr)
      .Set(CURLOPT_REQUEST_TARGET, hop.request_line.c_str())
      .Set(CURLOPT_SHARE, core.share)
      .Set(CURLOPT_COOKIEFILE, "");
  return o.result();
}

// The request's headers as curl takes them, made for the first hop curl runs.
bool ListHeaders(Request& r) {
  auto append = [&r](const char* line) {
    curl_slist* next = curl_slist_append(r.header_list, line);
    if (next) r.header_list = next;
    return next != nullptr;
  };
  auto named = [](const std::string& h, std::string_view name) {
    const size_t colon = h.find(':');
    return colon != std::string::npos &&
           EqualsNoCase(TrimBlanks(std::string_view(h).substr(0, colon)), name);
  };
  // The session's agent leads the list, so it goes out right after Host, where curl
  // would put it; given this way, curl need not format its own line for every
  // transfer. A request that names its own agent keeps that one.
  bool listed = true;
  const std::string& agent = r.core->settings->agent;
  if (!agent.empty() &&
      std::none_of(r.headers.begin(), r.headers.end(), [&](const std::string& h) { return named(h, "User-Agent"); })) {
    listed = append(("User-Agent: " + agent).c_str());
  }
  bool has_type = false;
  for (const std::string& h : r.headers) {
    has_type = has_type || named(h, "Content-Type");
    listed = listed && append(h.c_str());
  }
  // curl's own additions that WinHTTP does not make.
  return listed && append("Accept:") && append("Expect:") && (has_type || append("Content-Type:"));
}

// Starts one hop of the transfer on hop.base + hop.target with hop.verb.
uint32_t StartHop(Request& r) {
  Hop& hop = r.hop;
  hop.socket_opened = hop.prereq_fired = hop.response_started = false;
  r.request_sent_noted = false;
  hop.redirect_pending = false;
  hop.head = ResponseHead();
  hop.header_bytes = 0;
  r.body_offset = 0;
  hop.upload_done = !hop.has_body || r.body.empty();
  hop.inline_body = hop.has_body && !r.body.empty() && r.body.size() <= kInlineBodyMax;
  hop.t_start = hop.t_io = Clock::now();
  hop.url = hop.base + hop.target;
  hop.wire = Wire();
  uint32_t error = 0;
  if (WireStart(r, &error)) return error;
  if (!r.header_list && !ListHeaders(r)) return kHttpErrorNotEnoughMemory;

  // A sender's lane sets its last easy handle up afresh: its buffers are ready.
  CURL* e = std::exchange(r.core->spare, nullptr);
  if (e) {
    curl_easy_reset(e);
  } else {
    e = curl_easy_init();
  }
  if (!e) return kHttpErrorNotEnoughMemory;
  const CURLcode configured = Configure(r, e);
  if (configured != CURLE_OK) {
    curl_easy_cleanup(e);
    return HttpErrorFromCurl(configured);
  }
  if (curl_multi_add_handle(r.core->multi, e) != CURLM_OK) {
    curl_easy_cleanup(e);
    return kHttpErrorInternal;
  }
  hop.easy = e;
  return 0;
}

std::string BaseUrl(bool secure, const std::string& host, uint16_t port) {
  const bool bracket = host.find(':') != std::string::npos && host.front() != '[';
  if (port == 0) port = secure ? 443 : 80;
  std::string base;
  base.reserve(host.size() + 16);
  base += secure ? "https://" : "http://";
  if (bracket) base += '[';
  base += host;
  if (bracket) base += ']';
  base += ':';
  base += std::to_string(port);
  return base;
}

// Splits the redirect's URL into the next hop's server and request-line target.
bool AimAt(Hop& hop, const std::string& url) {
  CURLU* u = curl_url();
  if (!u) return false;
  bool ok = false;
  char *scheme = nullptr, *host = nullptr, *port = nullptr, *path = nullptr, *query = nullptr;
  if (curl_url_set(u, CURLUPART_URL, url.c_str(), 0) == CURLUE_OK &&
      curl_url_get(u, CURLUPART_SCHEME, &scheme, 0) == CURLUE_OK &&
      curl_url_get(u, CURLUPART_HOST, &host, 0) == CURLUE_OK &&
      curl_url_get(u, CURLUPART_PORT, &port, CURLU_DEFAULT_PORT) == CURLUE_OK &&
      curl_url_get(u, CURLUPART_PATH, &path, 0) == CURLUE_OK) {
    if (curl_url_get(u, CURLUPART_QUERY, &query, 0) != CURLUE_OK) query = nullptr;
    hop.secure = std::strcmp(scheme, "https") == 0;
    hop.host = host;
    if (hop.host.size() > 2 && hop.host.front() == '[') {
      hop.host = hop.host.substr(1, hop.host.size() - 2);
    }
    hop.port = static_cast<uint16_t>(std::atoi(port));
    hop.base = BaseUrl(hop.secure, hop.host, hop.port);
    hop.target = std::string(path) + (query ? std::string("?") + query : std::string());
    ok = true;
  }
  for (char* part : {scheme, host, port, path, query}) curl_free(part);
  curl_url_cleanup(u);
  return ok;
}

void FollowRedirect(Request& r) {
  EndTransfer(r, !r.hop.secure);
  Hop& hop = r.hop;
  if (++r.redirects > kMaxRedirects) return FailTransfer(r, kHttpErrorRedirectFailed);
  const long status = hop.head.status;
  if ((status == 303 && hop.verb != "HEAD") ||
      ((status == 301 || status == 302) && hop.verb == "POST")) {
    hop.verb = "GET";
    hop.has_body = false;
  }
  const std::string url = hop.redirect_url;
  if (!AimAt(hop, url)) return FailTransfer(r, kHttpErrorRedirectFailed);
  NotifyText(r, kHttpStatusRedirect, url);
  if (const uint32_t error = StartHop(r)) FailTransfer(r, error);
}

// WINHTTP_CALLBACK_STATUS_FLAG_* for a certificate that failed verification.
uint32_t CertificateFailureFlags(CURL* easy, CURLcode code) {
  if (code != CURLE_PEER_FAILED_VERIFICATION) return 0x80000000;  // security channel error
  long verify = 0;
  if (curl_easy_getinfo(easy, CURLINFO_SSL_VERIFYRESULT, &verify) != CURLE_OK) verify = -1;
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

// Bytes of the hop's head as curl sent them; 0 when not known yet. An inline body went
// out in the same write and is counted there too.
uint32_t HeadBytesSent(const Request& r) {
  long sent = 0;
  if (!r.hop.easy || curl_easy_getinfo(r.hop.easy, CURLINFO_REQUEST_SIZE, &sent) != CURLE_OK ||
      sent <= 0) {
    return 0;
  }
  size_t head = static_cast<size_t>(sent);
  if (r.hop.inline_body && head > r.body.size()) head -= r.body.size();
  return static_cast<uint32_t>(head);
}

}  // namespace

void EndTransfer(Request& r, bool reusable) {
  if (r.hop.wire.on) return WireEnd(r, reusable);
  CURL* e = r.hop.easy;
  if (!e) return;
  if (const uint32_t head = HeadBytesSent(r)) r.request_bytes = head;
  curl_multi_remove_handle(r.core->multi, e);
  // Only a handle whose plain transfer ran to its end is reset for the next: one left
  // before it began, or one that spoke TLS, keeps state a reset does not give back.
  Core& core = *r.core;
  if (reusable && core.own && !core.spare) {
    // A reset forgets the list of cookie files without freeing it: the handle leaves
    // the session's cookies and drops the list itself first.
    curl_easy_setopt(e, CURLOPT_SHARE, static_cast<CURLSH*>(nullptr));
    curl_easy_setopt(e, CURLOPT_COOKIEFILE, static_cast<char*>(nullptr));
    core.spare = e;
  } else {
    curl_easy_cleanup(e);
  }
  r.hop.easy = nullptr;
  r.paused = false;
}

void FailTransfer(Request& r, uint32_t error) {
  EndTransfer(r);
  r.done = true;
  r.error = error;
}

void TakeHeaderLine(Request& r, std::string_view line) {
  Hop& hop = r.hop;
  hop.t_io = Clock::now();
  hop.response_started = true;
  hop.header_bytes += static_cast<uint32_t>(line.size());
  if (line.size() > 11 && EqualsNoCase(line.substr(0, 11), "Set-Cookie:")) {
    r.core->settings->cookies = true;
    if (hop.wire.on) KeepCookie(r, line.substr(11));
  }
  if (!hop.head.Add(line)) return;
  // The end of one response's head: interim ones are dropped, redirects may be
  // followed, and the rest is the final response.
  if (hop.head.status >= 100 && hop.head.status < 200) {
    hop.head.text.clear();
    return;
  }
  if (IsRedirectStatus(hop.head.status)) {
    std::string target = RedirectTarget(r);
    if (!target.empty()) {
      hop.redirect_pending = true;
      hop.redirect_url = std::move(target);
      return;
    }
  }
  r.final_head = hop.head;
  r.headers_ready = true;
}

bool TakeBody(Request& r, const char* data, size_t n) {
  r.hop.t_io = Clock::now();
  if (r.hop.redirect_pending || !r.headers_ready) return true;  // the body of a redirect
  if (r.received.Full()) {
    r.paused = true;
    return false;
  }
  r.received.Append(data, n);
  return true;
}

void NoteAddress(Request& r, const char* ip) {
  const Hop& hop = r.hop;
  Settings& s = *r.core->settings;
  const auto until = Clock::now() + std::chrono::seconds(kKnownAddressSeconds);
  std::lock_guard<std::mutex> lock(s.known_mu);
  for (Settings::Known& k : s.known) {
    if (k.port == hop.port && k.host == hop.host) {
      k.ip = ip;
      k.until = until;
      return;
    }
  }
  if (s.known.size() >= kKnownAddressMax) s.known.erase(s.known.begin());
  s.known.push_back({hop.host, hop.port, ip, until});
}

uint32_t RequestHeadBytes(const Request& r) {
  if (const uint32_t head = HeadBytesSent(r)) return head;
  return r.request_bytes;
}

bool StartTransfer(Request& r) {
  r.started = true;
  Hop& hop = r.hop;
  hop.secure = r.secure;
  hop.host = r.host;
  hop.port = r.port ? r.port : r.secure ? 443 : 80;
  hop.base = BaseUrl(r.secure, r.host, r.port);
  hop.target = r.target;
  hop.verb = r.verb;
  // As WinHTTP does, POST and PUT state their length even when it is 0.
  hop.has_body = !r.body.empty() || r.verb == "POST" || r.verb == "PUT";
  if (const uint32_t error = StartHop(r)) {
    FailTransfer(r, error);
    return false;
  }
  return true;
}

void ResumeIfDrained(Request& r) {
  if (r.paused && r.hop.wire.on && r.received.Drained()) {
    r.paused = false;
    WireStep(r);  // what waits goes on at once: the loop may be about to sleep
    return;
  }
  if (r.paused && r.hop.easy && r.received.Drained()) {
    r.paused = false;
    // May deliver held data at once; a refusal ends the transfer.
    const CURLcode resumed = curl_easy_pause(r.hop.easy, CURLPAUSE_CONT);
    if (resumed != CURLE_OK) FailTransfer(r, HttpErrorFromCurl(resumed));
  }
}

void OnTransferDone(Request& r, CURLcode code) {
  if (code == CURLE_OK && r.hop.redirect_pending) return FollowRedirect(r);
  const uint32_t error = code == CURLE_OK ? 0 : HttpErrorFromCurl(code);
  if (error == kHttpErrorSecureFailure) {
    NotifyNumber(r, kHttpStatusSecureFailure, CertificateFailureFlags(r.hop.easy, code));
  }
  EndTransfer(r, code == CURLE_OK && !r.hop.secure);
  r.done = true;
  r.error = error ? error : r.headers_ready ? 0 : kHttpErrorInvalidServerResponse;
}

bool Deadline(const Request& r, Clock::time_point* when) {
  const Hop& hop = r.hop;
  if (!Active(hop) || r.paused || r.done) return false;
  int32_t ms;
  Clock::time_point from;
  if (hop.prereq_fired) {
    ms = !hop.upload_done ? r.timeouts.send
         : r.headers_ready || hop.redirect_pending ? r.timeouts.receive
                                                   : r.timeouts.receive_response;
    from = hop.t_io;
  } else if (hop.socket_opened) {
    ms = r.timeouts.connect;
    from = hop.t_socket;
  } else {
    ms = r.timeouts.resolve;
    from = hop.t_start;
  }
  if (ms <= 0) return false;
  *when = from + std::chrono::milliseconds(ms);
  return true;
}

}  // namespace tpcsdk::os::curlhttp
