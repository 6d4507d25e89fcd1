#include "wire.h"

#include <cctype>
#include <algorithm>
#include <cstring>

namespace tpcsdk::emulator {
namespace {

std::string Trim(const std::string& s) {
  size_t b = 0, e = s.size();
  while (b < e && (s[b] == ' ' || s[b] == '\t')) ++b;
  while (e > b && (s[e - 1] == ' ' || s[e - 1] == '\t' || s[e - 1] == '\r')) --e;
  return s.substr(b, e - b);
}

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

const char kB64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Length of the UTF-8 sequence at s[i], or 0 when it is malformed.
size_t Utf8SeqLen(const std::string& s, size_t i) {
  auto b = [&](size_t k) { return static_cast<unsigned char>(s[k]); };
  unsigned char c = b(i);
  if (c < 0x80) return 1;
  size_t n;
  uint32_t cp;
  if ((c & 0xE0) == 0xC0) {
    n = 2;
    cp = c & 0x1F;
  } else if ((c & 0xF0) == 0xE0) {
    n = 3;
    cp = c & 0x0F;
  } else if ((c & 0xF8) == 0xF0) {
    n = 4;
    cp = c & 0x07;
  } else {
    return 0;
  }
  if (i + n > s.size()) return 0;
  for (size_t k = 1; k < n; ++k) {
    if ((b(i + k) & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (b(i + k) & 0x3F);
  }
  static const uint32_t kMin[] = {0, 0, 0x80, 0x800, 0x10000};
  if (cp < kMin[n] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
  return n;
}

}  // namespace

const std::string* Request::Header(const std::string& name) const {
  for (const auto& h : headers) {
    if (EqualsNoCase(h.first, name)) return &h.second;
  }
  return nullptr;
}

std::string Request::DecodedPath() const { return PercentDecode(path); }

HeadStatus FindHeadEnd(const std::string& buf, size_t* head_len) {
  // Leading blank lines before a request line are tolerated (RFC 9112 2.2).
  size_t start = 0;
  while (start < buf.size() && (buf[start] == '\r' || buf[start] == '\n')) ++start;
  for (size_t i = start; i < buf.size(); ++i) {
    if (buf[i] != '\n') continue;
    if (i + 1 < buf.size() && buf[i + 1] == '\n') {
      *head_len = i + 2;
      return HeadStatus::kComplete;
    }
    if (i + 2 < buf.size() && buf[i + 1] == '\r' && buf[i + 2] == '\n') {
      *head_len = i + 3;
      return HeadStatus::kComplete;
    }
  }
  return HeadStatus::kIncomplete;
}

bool ParseHead(const std::string& head_in, Request* req, std::string* error) {
  size_t start = 0;
  while (start < head_in.size() && (head_in[start] == '\r' || head_in[start] == '\n')) ++start;
  const std::string head = head_in.substr(start);
  size_t eol = head.find('\n');
  if (eol == std::string::npos) {
    *error = "no request line";
    return false;
  }
  std::string line = head.substr(0, eol);
  if (!line.empty() && line.back() == '\r') line.pop_back();
  size_t first = line.find(' ');
  size_t last = line.rfind(' ');
  if (first == std::string::npos || first == 0 || last == first) {
    *error = "malformed request line";
    return false;
  }
  req->method = line.substr(0, first);
  req->version = line.substr(last + 1);
  req->target = line.substr(first + 1, last - first - 1);
  if (req->version.compare(0, 5, "HTTP/") != 0 || req->target.empty()) {
    *error = "malformed request line";
    return false;
  }
  std::string t = req->target;
  // Absolute form (a proxy-style target): keep only path and query.
  size_t scheme = t.find("://");
  if (scheme != std::string::npos && t[0] != '/') {
    size_t slash = t.find('/', scheme + 3);
    size_t q = t.find('?', scheme + 3);
    size_t cut = std::min(slash, q);
    t = cut == std::string::npos ? "/" : (t[cut] == '?' ? "/" + t.substr(cut) : t.substr(cut));
  }
  size_t q = t.find('?');
  req->has_query = q != std::string::npos;
  req->path = req->has_query ? t.substr(0, q) : t;
  req->query = req->has_query ? t.substr(q + 1) : std::string();

  size_t pos = eol + 1;
  while (pos < head.size()) {
    size_t e = head.find('\n', pos);
    if (e == std::string::npos) e = head.size();
    std::string h = head.substr(pos, e - pos);
    pos = e + 1;
    if (!h.empty() && h.back() == '\r') h.pop_back();
    if (h.empty()) break;
    if ((h[0] == ' ' || h[0] == '\t') && !req->headers.empty()) {
      req->headers.back().second += " " + Trim(h);  // obsolete line folding
      continue;
    }
    size_t colon = h.find(':');
    if (colon == std::string::npos || colon == 0) {
      *error = "malformed header line";
      return false;
    }
    req->headers.emplace_back(h.substr(0, colon), Trim(h.substr(colon + 1)));
  }
  return true;
}

bool GetBodyFraming(const Request& req, BodyFraming* framing, std::string* error) {
  *framing = BodyFraming();
  if (const std::string* te = req.Header("Transfer-Encoding")) {
    std::string v;
    for (char c : *te) v += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (v.find("chunked") != std::string::npos) {
      framing->chunked = true;
      return true;
    }
  }
  if (const std::string* cl = req.Header("Content-Length")) {
    if (cl->empty() || cl->size() > 18) {
      *error = "bad Content-Length";
      return false;
    }
    uint64_t n = 0;
    for (char c : *cl) {
      if (c < '0' || c > '9') {
        *error = "bad Content-Length";
        return false;
      }
      n = n * 10 + static_cast<uint64_t>(c - '0');
    }
    framing->length = n;
  }
  return true;
}

bool ChunkedDecoder::Feed(const char* data, size_t len, size_t* consumed) {
  size_t i = 0;
  while (i < len && state_ != State::kDone) {
    switch (state_) {
      case State::kSize:
      case State::kTrailer:
      case State::kDataEnd: {
        char c = data[i++];
        if (c != '\n') {
          if (line_.size() > 4096) return false;
          line_ += c;
          break;
        }
        if (!line_.empty() && line_.back() == '\r') line_.pop_back();
        std::string line;
        line.swap(line_);
        if (state_ == State::kDataEnd) {
          if (!line.empty()) return false;
          state_ = State::kSize;
        } else if (state_ == State::kTrailer) {
          if (line.empty()) state_ = State::kDone;
        } else {
          size_t semi = line.find(';');
          std::string hex = Trim(line.substr(0, semi));
          if (hex.empty() || hex.size() > 15) return false;
          uint64_t n = 0;
          for (char h : hex) {
            int v = HexValue(h);
            if (v < 0) return false;
            n = n * 16 + static_cast<uint64_t>(v);
          }
          remaining_ = n;
          state_ = n == 0 ? State::kTrailer : State::kData;
        }
        break;
      }
      case State::kData: {
        size_t take = static_cast<size_t>(std::min<uint64_t>(remaining_, len - i));
        body_.append(data + i, take);
        i += take;
        remaining_ -= take;
        if (remaining_ == 0) state_ = State::kDataEnd;
        break;
      }
      case State::kDone:
        break;
    }
  }
  *consumed = i;
  return true;
}

std::string PercentDecode(const std::string& s) {
  std::string out;
  out.reserve(s.size());
  for (size_t i = 0; i < s.size(); ++i) {
    if (s[i] == '%' && i + 2 < s.size()) {
      int hi = HexValue(s[i + 1]), lo = HexValue(s[i + 2]);
      if (hi >= 0 && lo >= 0) {
        out += static_cast<char>(hi * 16 + lo);
        i += 2;
        continue;
      }
    }
    out += s[i];
  }
  return out;
}

std::string QueryParam(const Request& req, const std::string& name) {
  size_t pos = 0;
  while (pos <= req.query.size()) {
    size_t amp = req.query.find('&', pos);
    if (amp == std::string::npos) amp = req.query.size();
    std::string field = req.query.substr(pos, amp - pos);
    if (field.compare(0, name.size() + 1, name + "=") == 0)
      return PercentDecode(field.substr(name.size() + 1));
    pos = amp + 1;
  }
  return "";
}

std::string ReplaceAll(std::string s, const std::string& from, const std::string& to) {
  for (size_t p = s.find(from); p != std::string::npos; p = s.find(from, p + to.size())) {
    s.replace(p, from.size(), to);
  }
  return s;
}

bool EqualsNoCase(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(a[i])) !=
        std::tolower(static_cast<unsigned char>(b[i])))
      return false;
  }
  return true;
}

std::string Base64Encode(const std::string& bytes) {
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  size_t i = 0;
  auto u = [&](size_t k) { return static_cast<uint32_t>(static_cast<unsigned char>(bytes[k])); };
  for (; i + 2 < bytes.size(); i += 3) {
    uint32_t v = (u(i) << 16) | (u(i + 1) << 8) | u(i + 2);
    out += kB64[v >> 18];
    out += kB64[(v >> 12) & 63];
    out += kB64[(v >> 6) & 63];
    out += kB64[v & 63];
  }
  if (i + 1 == bytes.size()) {
    uint32_t v = u(i) << 16;
    out += kB64[v >> 18];
    out += kB64[(v >> 12) & 63];
    out += "==";
  } else if (i + 2 == bytes.size()) {
    uint32_t v = (u(i) << 16) | (u(i + 1) << 8);
    out += kB64[v >> 18];
    out += kB64[(v >> 12) & 63];
    out += kB64[(v >> 6) & 63];
    out += '=';
  }
  return out;
}

bool Base64Decode(const std::string& text, std::string* bytes) {
  bytes->clear();
  uint32_t acc = 0;
  int bits = 0;
  for (char c : text) {
    if (c == ' ' || c == '\t' || c == '\r' || c == '\n') continue;
    if (c == '=') break;
    const char* p = std::strchr(kB64, c);
    if (c == '\0' || p == nullptr) return false;
    acc = (acc << 6) | static_cast<uint32_t>(p - kB64);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      *bytes += static_cast<char>((acc >> bits) & 0xFF);
    }
  }
  return true;
}

bool IsCleanUtf8(const std::string& s) {
  for (size_t i = 0; i < s.size();) {
    if (s[i] == '\0') return false;
    size_t n = Utf8SeqLen(s, i);
    if (n == 0) return false;
    i += n;
  }
  return true;
}

std::string SanitizeUtf8(const std::string& s) {
  std::string out;
  out.reserve(s.size());
  for (size_t i = 0; i < s.size();) {
    size_t n = Utf8SeqLen(s, i);
    if (n == 0) {
      out += "\xEF\xBF\xBD";
      ++i;
    } else {
      out.append(s, i, n);
      i += n;
    }
  }
  return out;
}

std::string ReasonPhrase(int status) {
  switch (status) {
    case 100: return "Continue";
    case 200: return "OK";
    case 201: return "Created";
    case 202: return "Accepted";
    case 204: return "No Content";
    case 301: return "Moved Permanently";
    case 302: return "Found";
    case 304: return "Not Modified";
    case 400: return "Bad Request";
    case 401: return "Unauthorized";
    case 403: return "Forbidden";
    case 404: return "Not Found";
    case 405: return "Method Not Allowed";
    case 408: return "Request Timeout";
    case 413: return "Content Too Large";
    case 431: return "Request Header Fields Too Large";
    case 500: return "Internal Server Error";
    case 502: return "Bad Gateway";
    case 503: return "Service Unavailable";
    default: return "Status";
  }
}

}  // namespace tpcsdk::emulator
