#include "os/posix/http_text.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "os/http.h"
#include "support/text.h"

namespace tpcsdk::os::curlhttp {

namespace {

// Calls f(name, value) for each header line of a head (the status line skipped) until
// f returns true.
template <class F>
void ForEachField(std::string_view head, F f) {
  size_t i = head.find("\r\n");
  while (i != std::string_view::npos && i + 2 < head.size()) {
    const size_t start = i + 2;
    const size_t end = head.find("\r\n", start);
    const std::string_view line = head.substr(start, end - start);
    const size_t colon = line.find(':');
    if (colon != std::string_view::npos &&
        f(TrimBlanks(line.substr(0, colon)), TrimBlanks(line.substr(colon + 1)))) {
      return;
    }
    i = end;
  }
}

}  // namespace

std::string_view TrimBlanks(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() &&
         (s.back() == ' ' || s.back() == '\t' || s.back() == '\r' || s.back() == '\n')) {
    s.remove_suffix(1);
  }
  return s;
}

bool ParseHeaderLines(std::string_view text, HeaderFields* out) {
  size_t i = 0;
  while (i < text.size()) {
    const size_t end = std::min(text.find('\n', i), text.size());
    const std::string_view line = TrimBlanks(text.substr(i, end - i));
    i = end + 1;
    if (line.empty()) continue;
    const size_t colon = line.find(':');
    if (colon == std::string_view::npos || colon == 0) return false;
    out->emplace_back(std::string(TrimBlanks(line.substr(0, colon))),
                      std::string(TrimBlanks(line.substr(colon + 1))));
  }
  return true;
}

bool ResponseHead::Add(std::string_view line) {
  while (!line.empty() && (line.back() == '\r' || line.back() == '\n')) line.remove_suffix(1);
  if (EqualsNoCase(line.substr(0, 5), "HTTP/")) {
    text.reserve(256);  // room for a usual head at once
    text.assign(line);
    text += "\r\n";
    // The code: three digits after the version's blank, and any further blanks.
    size_t at = line.find(' ');
    while (at < line.size() && (line[at] == ' ' || line[at] == '\t')) ++at;
    status = at >= line.size() ? 0 : std::atol(std::string(line.substr(at, 3)).c_str());
    return false;
  }
  if (line.empty()) return true;
  text.append(line);
  text += "\r\n";
  return false;
}

bool ResponseHead::Find(std::string_view name, uint32_t index, std::string* value) const {
  bool found = false;
  uint32_t seen = 0;
  ForEachField(text, [&](std::string_view n, std::string_view v) {
    if (!EqualsNoCase(n, name) || seen++ != index) return false;
    value->assign(v);
    found = true;
    return true;
  });
  return found;
}

std::string ResponseHead::Value(std::string_view name) const {
  std::string value;
  Find(name, 0, &value);
  return value;
}

HeaderFields ResponseHead::Fields() const {
  HeaderFields out;
  ForEachField(text, [&](std::string_view n, std::string_view v) {
    out.emplace_back(std::string(n), std::string(v));
    return false;
  });
  return out;
}

bool IsRedirectStatus(long status) {
  return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

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

void BodyBuffer::Append(const char* data, size_t n) {
  if (head_ > 0 && head_ >= bytes_.size() / 2) {
    bytes_.erase(0, head_);
    head_ = 0;
  }
  bytes_.append(data, n);
}

size_t BodyBuffer::Take(void* out, size_t max) {
  const size_t n = std::min(max, Size());
  if (n) std::memcpy(out, bytes_.data() + head_, n);
  head_ += n;
  if (head_ == bytes_.size()) {
    bytes_.clear();
    head_ = 0;
  }
  return n;
}

void BodyBuffer::Clear() {
  std::string().swap(bytes_);
  head_ = 0;
}

namespace {
std::mutex g_global_mu;
bool g_global_ready = false;
}  // namespace

bool CurlGlobalInit() {
  std::lock_guard<std::mutex> lock(g_global_mu);
  if (!g_global_ready) g_global_ready = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
  return g_global_ready;
}

void CurlGlobalCleanup() {
  std::lock_guard<std::mutex> lock(g_global_mu);
  if (!g_global_ready) return;
  curl_global_cleanup();
  g_global_ready = false;
}

uint32_t HttpErrorFromCurl(CURLcode code) {
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
      // Anything else is a failure of the client itself, not of the peer.
      return kHttpErrorInternal;
  }
}

}  // namespace tpcsdk::os::curlhttp
