// URL cracking with WinHttpCrackUrl's answers, and the user's proxy settings read from
// the environment, for the Linux side of the HTTP seam.
#include <algorithm>
#include <string>
#include <string_view>

#include "os/http.h"
#include "os/posix/environment.h"
#include "support/text.h"
#include "support/utf.h"

namespace tpcsdk::os {

void HttpSetLastErrorInternal(uint32_t error);  // http_curl.cpp

namespace {

bool Fail(uint32_t error) {
  HttpSetLastErrorInternal(error);
  return false;
}

int HexValue(char16_t c) {
  if (c >= u'0' && c <= u'9') return c - u'0';
  if (c >= u'a' && c <= u'f') return c - u'a' + 10;
  if (c >= u'A' && c <= u'F') return c - u'A' + 10;
  return -1;
}

// %XX becomes the one 16-bit unit XX; a '%' without two hex digits stays as it is.
// Bytes are not folded into UTF-8 sequences, as WinHTTP's decoding does not either.
std::u16string Decode(std::u16string_view s) {
  std::u16string out;
  out.reserve(s.size());
  for (size_t i = 0; i < s.size(); ++i) {
    if (s[i] == u'%' && i + 2 < s.size()) {
      const int hi = HexValue(s[i + 1]), lo = HexValue(s[i + 2]);
      if (hi >= 0 && lo >= 0) {
        out.push_back(static_cast<char16_t>(hi * 16 + lo));
        i += 2;
        continue;
      }
    }
    out.push_back(s[i]);
  }
  return out;
}

std::u16string FromEnv(const char* lower, const char* upper) {
  std::string v = EnvValue(lower);
  if (v.empty()) v = EnvValue(upper);
  return Utf8ToUtf16(v);
}

}  // namespace

bool HttpCrackUrl(std::u16string_view url, bool decode, HttpUrlParts* parts, uint32_t capacity) {
  if (!parts || capacity == 0) return Fail(kHttpErrorInvalidParameter);
  const size_t colon = url.find(u':');
  if (colon == std::u16string_view::npos || colon == 0) return Fail(kHttpErrorUnrecognizedScheme);
  const std::u16string_view scheme = url.substr(0, colon);
  uint32_t scheme_number;
  uint16_t default_port;
  if (EqualsNoCase(scheme, u"http")) {
    scheme_number = kHttpSchemeHttp;
    default_port = 80;
  } else if (EqualsNoCase(scheme, u"https")) {
    scheme_number = kHttpSchemeHttps;
    default_port = 443;
  } else {
    return Fail(kHttpErrorUnrecognizedScheme);
  }
  std::u16string_view rest = url.substr(colon + 1);
  if (rest.substr(0, 2) != u"//") return Fail(kHttpErrorInvalidUrl);
  rest.remove_prefix(2);
  if (rest.empty()) return Fail(kHttpErrorInvalidUrl);

  // The authority runs to the first '/', '?' or '#'; the path to the first '?' or '#'.
  const size_t auth_end = std::min(rest.find_first_of(u"/?#"), rest.size());
  std::u16string_view authority = rest.substr(0, auth_end);
  const std::u16string_view tail = rest.substr(auth_end);
  const size_t path_end = std::min(tail.find_first_of(u"?#"), tail.size());
  const std::u16string_view path = tail.substr(0, path_end);
  const std::u16string_view extra = tail.substr(path_end);

  std::u16string_view user, password;
  const size_t at = authority.rfind(u'@');
  if (at != std::u16string_view::npos) {
    const std::u16string_view userinfo = authority.substr(0, at);
    const size_t c = userinfo.find(u':');
    user = userinfo.substr(0, c);
    if (c != std::u16string_view::npos) password = userinfo.substr(c + 1);
    authority.remove_prefix(at + 1);
  }

  std::u16string_view host = authority, port_text;
  bool has_port = false;
  if (!authority.empty() && authority[0] == u'[') {
    const size_t close = authority.find(u']');
    if (close == std::u16string_view::npos) return Fail(kHttpErrorInvalidUrl);
    host = authority.substr(0, close + 1);
    const std::u16string_view after = authority.substr(close + 1);
    if (!after.empty()) {
      if (after[0] != u':') return Fail(kHttpErrorInvalidUrl);
      has_port = true;
      port_text = after.substr(1);
    }
  } else {
    const size_t c = authority.find(u':');
    if (c != std::u16string_view::npos) {
      host = authority.substr(0, c);
      has_port = true;
      port_text = authority.substr(c + 1);
    }
  }
  // The port reads its leading digits, as WinHTTP does: none gives 0, an empty port
  // gives the scheme's default, and a value past 65535 is an invalid URL.
  uint32_t port = default_port;
  if (has_port && !port_text.empty()) {
    port = 0;
    for (char16_t c : port_text) {
      if (c < u'0' || c > u'9') break;
      port = port * 10 + static_cast<uint32_t>(c - u'0');
      if (port > 65535) return Fail(kHttpErrorInvalidUrl);
    }
  }

  auto component = [decode](std::u16string_view s) {
    return decode ? Decode(s) : std::u16string(s);
  };
  HttpUrlParts out;
  out.scheme = scheme_number;
  out.scheme_name = std::u16string(scheme);
  out.host = component(host);
  out.port = static_cast<uint16_t>(port);
  out.user = component(user);
  out.password = component(password);
  out.path = component(path);
  out.extra = component(extra);
  for (const std::u16string* s :
       {&out.scheme_name, &out.host, &out.user, &out.password, &out.path, &out.extra}) {
    if (s->size() + 1 > capacity) return Fail(kHttpErrorInsufficientBuffer);
  }
  *parts = std::move(out);
  return true;
}

bool HttpGetUserProxyConfig(HttpProxyConfig* config) {
  if (!config) return Fail(kHttpErrorInvalidParameter);
  const std::u16string https = FromEnv("https_proxy", "HTTPS_PROXY");
  const std::u16string http = FromEnv("http_proxy", "HTTP_PROXY");
  std::u16string proxy;
  if (!http.empty()) proxy += u"http=" + http;
  if (!https.empty()) proxy += (proxy.empty() ? u"" : u";") + (u"https=" + https);
  std::u16string bypass = FromEnv("no_proxy", "NO_PROXY");
  for (char16_t& c : bypass) {
    if (c == u',') c = u';';
  }
  config->proxy = std::move(proxy);
  config->bypass = std::move(bypass);
  return true;
}

}  // namespace tpcsdk::os
