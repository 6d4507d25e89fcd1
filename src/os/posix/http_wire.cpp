// A sender's plain request on the lane's own connection: HTTP/1.1 written and read here,
// without libcurl. A sender-driven exchange is the module's everyday call, and libcurl's
// general machinery (its URL and header formatting, its connection cache, its state
// machine) cost more than the whole rest of the exchange; what is left to do for a plain
// request to a known address is small enough to do directly.
//
// The hop keeps everything the libcurl path shows: the same bytes on the wire (request
// line, Host, the agent, the request's headers in order, Content-Length), the same
// notifications at the same points, the same phases for the deadlines, and the same
// error for each way a response can fail. A hop goes to libcurl instead when it is
// secure, goes through a proxy, names a header libcurl gives a meaning of its own, or
// its server's address is not known without a name lookup; and every hop of a session
// does once a response has set a cookie, since libcurl keeps the session's cookies.
//
// Everything here runs with the lane's mutex held, on the thread that drives the lane (or
// on a thread that closes the request while nobody drives it).
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <utility>

#include "os/posix/http_internal.h"
#include "support/text.h"

namespace tpcsdk::os::curlhttp {

namespace {

constexpr size_t kReadChunk = 16 * 1024;
// libcurl's bounds on a response's head, and on one line of it, with its errors.
constexpr size_t kMaxHead = 300 * 1024;
constexpr size_t kMaxHeadLine = 100 * 1024;

char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

std::string_view NameOf(std::string_view header) {
  return TrimBlanks(header.substr(0, header.find(':')));
}

std::string_view ValueOf(std::string_view header) {
  const size_t colon = header.find(':');
  return colon == std::string_view::npos ? std::string_view() : TrimBlanks(header.substr(colon + 1));
}

// Headers that change how libcurl frames or sends a request: a request naming one goes
// to libcurl, which knows what they mean for it.
bool PlainHeaders(const Request& r) {
  for (const std::string& h : r.headers) {
    const std::string_view name = NameOf(h);
    for (const char* special : {"Host", "Content-Length", "Transfer-Encoding", "Expect"}) {
      if (EqualsNoCase(name, special)) return false;
    }
  }
  return true;
}

struct Address {
  sockaddr_storage addr{};
  socklen_t length = 0;
  std::string ip;
};

bool ParseAddress(const std::string& text, uint16_t port, Address* out) {
  auto* v4 = reinterpret_cast<sockaddr_in*>(&out->addr);
  auto* v6 = reinterpret_cast<sockaddr_in6*>(&out->addr);
  if (inet_pton(AF_INET, text.c_str(), &v4->sin_addr) == 1) {
    v4->sin_family = AF_INET;
    v4->sin_port = htons(port);
    out->length = sizeof(sockaddr_in);
  } else if (inet_pton(AF_INET6, text.c_str(), &v6->sin6_addr) == 1) {
    v6->sin6_family = AF_INET6;
    v6->sin6_port = htons(port);
    out->length = sizeof(sockaddr_in6);
  } else {
    return false;
  }
  out->ip = text;
  return true;
}

// The server's address without a name lookup: the host is an address itself, or the
// session connected to it lately.
bool KnownAddress(const Request& r, Address* out) {
  const Hop& hop = r.hop;
  if (ParseAddress(hop.host, hop.port, out)) return true;
  Settings& s = *r.core->settings;
  std::string ip;
  {
    const auto now = Clock::now();
    std::lock_guard<std::mutex> lock(s.known_mu);
    for (const Settings::Known& k : s.known) {
      if (k.port == hop.port && k.host == hop.host && k.until > now) ip = k.ip;
    }
  }
  return !ip.empty() && ParseAddress(ip, hop.port, out);
}

// A kept connection is still open and quiet: the server has neither closed it nor
// sent anything unasked.
bool Quiet(int fd) {
  char c;
  const ssize_t n = recv(fd, &c, 1, MSG_PEEK | MSG_DONTWAIT);
  return n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
}

std::string PeerKey(const Hop& hop) {
  std::string key = hop.host;
  key += ':';
  key += std::to_string(hop.port);
  return key;
}

// The request's head, as libcurl writes it for the same request: the request line, Host
// (with the port unless it is 80), the session's agent unless the request names its
// own, the request's headers in order (one with an empty value is left out), and the
// body's length.
void WriteHead(const Request& r, std::string* out) {
  const Hop& hop = r.hop;
  const std::string& agent = r.core->settings->agent;
  bool own_agent = false;
  size_t size = hop.verb.size() + hop.target.size() + hop.host.size() + agent.size() + 96;
  for (const std::string& h : r.headers) {
    size += h.size() + 2;
    own_agent = own_agent || EqualsNoCase(NameOf(h), "User-Agent");
  }
  out->clear();
  out->reserve(size);
  *out += hop.verb;
  *out += ' ';
  *out += hop.target;
  *out += " HTTP/1.1\r\nHost: ";
  const bool bracket = hop.host.find(':') != std::string::npos;
  if (bracket) *out += '[';
  *out += hop.host;
  if (bracket) *out += ']';
  if (hop.port != 80) {
    *out += ':';
    *out += std::to_string(hop.port);
  }
  *out += "\r\n";
  if (!agent.empty() && !own_agent) {
    *out += "User-Agent: ";
    *out += agent;
    *out += "\r\n";
  }
  for (const std::string& h : r.headers) {
    if (ValueOf(h).empty()) continue;
    *out += h;
    *out += "\r\n";
  }
  if (hop.has_body) {
    *out += "Content-Length: ";
    *out += std::to_string(r.body.size());
    *out += "\r\n";
  }
  *out += "\r\n";
}

void Finish(Request& r, CURLcode code) { OnTransferDone(r, code); }

void StartSending(Request& r) {
  Hop& hop = r.hop;
  hop.prereq_fired = true;
  hop.t_io = Clock::now();
  Notify(r, kHttpStatusSendingRequest);
  hop.wire.stage = Wire::Stage::kSend;
  hop.wire.ready = true;  // a fresh or idle socket takes the first write at once
}

// Opens a new connection to the address; its notifications are libcurl's for the same.
void OpenConnection(Request& r, const Address& to) {
  Core& core = *r.core;
  Hop& hop = r.hop;
  Wire& w = hop.wire;
  CloseWire(core);
  if (!hop.socket_opened) {
    hop.socket_opened = true;
    hop.t_socket = Clock::now();
    NotifyText(r, kHttpStatusResolvingName, hop.host);
    NotifyText(r, kHttpStatusNameResolved, to.ip);
    NotifyText(r, kHttpStatusConnectingToServer, to.ip);
  }
  const int fd = socket(to.addr.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) return Finish(r, CURLE_COULDNT_CONNECT);
  const int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
  core.wire_fd = fd;
  core.wire_peer = PeerKey(hop);
  w.stage = Wire::Stage::kConnect;
  w.ready = false;
  w.want = POLLOUT;
  if (connect(fd, reinterpret_cast<const sockaddr*>(&to.addr), to.length) == 0) {
    NotifyText(r, kHttpStatusConnectedToServer, to.ip);
    return StartSending(r);
  }
  if (errno != EINPROGRESS) return Finish(r, CURLE_COULDNT_CONNECT);
}

// A kept connection the server closed while the request was on its way: the request
// goes once more, on a new connection, as any client does with an idle connection.
// Otherwise the hop fails with `code`.
void Broken(Request& r, CURLcode code) {
  Wire& w = r.hop.wire;
  Address to;
  if (!w.reused || w.any_reply || w.retried || !KnownAddress(r, &to)) return Finish(r, code);
  w.reused = false;
  w.retried = true;
  w.sent = 0;
  w.in.clear();
  w.in_at = 0;
  r.hop.upload_done = false;
  OpenConnection(r, to);
}

// The connection has opened, or failed to.
void StepConnect(Request& r) {
  Wire& w = r.hop.wire;
  int error = 0;
  socklen_t length = sizeof(error);
  if (getsockopt(r.core->wire_fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0) error = errno;
  if (error != 0) return Finish(r, CURLE_COULDNT_CONNECT);
  sockaddr_storage peer{};
  socklen_t peer_length = sizeof(peer);
  if (getpeername(r.core->wire_fd, reinterpret_cast<sockaddr*>(&peer), &peer_length) != 0) {
    w.ready = false;  // still connecting: woken for something else
    return;
  }
  char ip[INET6_ADDRSTRLEN] = "";
  const void* at = peer.ss_family == AF_INET6
                       ? static_cast<const void*>(&reinterpret_cast<sockaddr_in6*>(&peer)->sin6_addr)
                       : static_cast<const void*>(&reinterpret_cast<sockaddr_in*>(&peer)->sin_addr);
  inet_ntop(peer.ss_family, at, ip, sizeof(ip));
  NotifyText(r, kHttpStatusConnectedToServer, ip);
  StartSending(r);
}

// Sends what is left of the head and the body.
void StepSend(Request& r) {
  Hop& hop = r.hop;
  Wire& w = hop.wire;
  const size_t head = w.out.size();
  const size_t total = head + r.body.size();
  while (w.sent < total) {
    iovec parts[2];
    int n = 0;
    if (w.sent < head) parts[n++] = {w.out.data() + w.sent, head - w.sent};
    const size_t body_at = w.sent > head ? w.sent - head : 0;
    if (body_at < r.body.size()) parts[n++] = {r.body.data() + body_at, r.body.size() - body_at};
    msghdr m{};
    m.msg_iov = parts;
    m.msg_iovlen = static_cast<size_t>(n);
    const ssize_t k = sendmsg(r.core->wire_fd, &m, MSG_NOSIGNAL);
    if (k < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN || errno == EWOULDBLOCK) {
        w.ready = false;
        w.want = POLLOUT;
        return;
      }
      return Broken(r, CURLE_SEND_ERROR);
    }
    w.sent += static_cast<size_t>(k);
    hop.t_io = Clock::now();
  }
  hop.upload_done = true;
  w.stage = Wire::Stage::kHead;
  w.want = POLLIN;
  w.ready = false;  // the answer takes a round trip
}

// Calls f on each token of a comma-separated header value, blanks trimmed.
template <class F>
void ForEachToken(std::string_view value, F&& f) {
  for (size_t at = 0; at <= value.size();) {
    const size_t end = std::min(value.find(',', at), value.size());
    f(TrimBlanks(value.substr(at, end - at)));
    at = end + 1;
  }
}

bool HasToken(std::string_view value, std::string_view token) {
  bool found = false;
  ForEachToken(value, [&](std::string_view t) { found = found || EqualsNoCase(t, token); });
  return found;
}

// A Content-Length value as libcurl reads it: blanks, an optional '+', then digits, and
// whatever follows them left alone. No digit (a sign '-' included) is an error; a value
// past the largest length leaves the length unknown.
enum class Length { kBad, kNumber, kTooLarge };
Length ReadLength(std::string_view v, uint64_t* n) {
  v = TrimBlanks(v);
  size_t i = v.empty() || v[0] != '+' ? 0 : 1;
  size_t digits = 0;
  bool over = false;
  *n = 0;
  for (; i < v.size() && v[i] >= '0' && v[i] <= '9'; ++i, ++digits) {
    const auto d = static_cast<uint64_t>(v[i] - '0');
    over = over || *n > (static_cast<uint64_t>(INT64_MAX) - d) / 10;
    if (!over) *n = *n * 10 + d;
  }
  return digits == 0 ? Length::kBad : over ? Length::kTooLarge : Length::kNumber;
}

// The head has ended: how the body is framed, and whether the connection stays open.
// Its lengths have been read already (one that does not read fails at its line).
void StartBody(Request& r) {
  Hop& hop = r.hop;
  Wire& w = hop.wire;
  const ResponseHead& head = hop.head;
  const std::string connection = head.Value("Connection");
  const std::string_view version = std::string_view(head.text).substr(0, 8);
  const bool persistent = EqualsNoCase(version, "HTTP/1.1") || EqualsNoCase(version.substr(0, 6), "HTTP/2");
  w.keep_alive = persistent ? !HasToken(connection, "close") : HasToken(connection, "keep-alive");
  w.stage = Wire::Stage::kBody;
  // The last length given wins; one too large to hold leaves the length unknown.
  bool has_length = false;
  uint64_t length = 0;
  std::string value;
  for (uint32_t i = 0; head.Find("Content-Length", i, &value); ++i) {
    has_length = ReadLength(value, &length) == Length::kNumber;
  }
  // A transfer coding other than chunked (or identity) is not one this client reads: the
  // body fails at its first byte.
  bool chunked = false;
  for (uint32_t i = 0; head.Find("Transfer-Encoding", i, &value); ++i) {
    ForEachToken(value, [&](std::string_view coding) {
      if (EqualsNoCase(coding, "chunked")) {
        chunked = true;
      } else if (!coding.empty() && !EqualsNoCase(coding, "identity")) {
        w.foreign_coding = true;
      }
    });
  }
  const long status = head.status;
  if (hop.verb == "HEAD" || status == 204 || status == 304) {
    w.framing = Wire::Framing::kNone;
  } else if (chunked) {
    w.framing = Wire::Framing::kChunked;
    w.chunk = Wire::Chunk::kSize;
    w.left = 0;
  } else if (has_length) {
    w.framing = length == 0 ? Wire::Framing::kNone : Wire::Framing::kLength;
    w.left = length;
  } else {
    w.framing = Wire::Framing::kClose;
    w.keep_alive = false;
  }
}

// The response has ended where its framing says.
void Complete(Request& r) {
  r.hop.wire.complete = true;
  Finish(r, CURLE_OK);
}

// One line from what waits, '\n' included; empty when none is whole yet.
std::string_view NextLine(const Wire& w) {
  const char* p = w.in.data() + w.in_at;
  const size_t avail = w.in.size() - w.in_at;
  const void* nl = std::memchr(p, '\n', avail);
  if (!nl) return std::string_view();
  return std::string_view(p, static_cast<const char*>(nl) - p + 1);
}

// A status line as libcurl takes one: a version it speaks ("HTTP/1.0", "HTTP/1.1",
// in any case,
// "HTTP/2.0" or "HTTP/2"), a blank, then a code of three digits from 100 up, blanks
// before it allowed.
bool StatusLine(std::string_view line) {
  size_t i = 0;
  for (const std::string_view version : {"HTTP/1.0 ", "HTTP/1.1 ", "HTTP/2.0 ", "HTTP/2 "}) {
    if (EqualsNoCase(line.substr(0, version.size()), version)) i = version.size();
  }
  if (i == 0) return false;
  while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) ++i;
  auto digit = [&](size_t at) { return at < line.size() && line[at] >= '0' && line[at] <= '9'; };
  return digit(i) && digit(i + 1) && digit(i + 2) && !digit(i + 3) && line[i] != '0';
}

// Body bytes from what waits, up to `max`; false when the reader's buffer is full.
bool PassBody(Request& r, uint64_t max, size_t* taken) {
  Wire& w = r.hop.wire;
  const size_t n = static_cast<size_t>(std::min<uint64_t>(max, w.in.size() - w.in_at));
  *taken = n;
  if (n == 0) return true;
  if (w.foreign_coding) {
    Finish(r, CURLE_BAD_CONTENT_ENCODING);
    return false;
  }
  if (!TakeBody(r, w.in.data() + w.in_at, n)) return false;
  w.in_at += n;
  return true;
}

int HexValue(char c) {
  return c >= '0' && c <= '9'   ? c - '0'
         : c >= 'a' && c <= 'f' ? c - 'a' + 10
         : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                : -1;
}

// A chunked body, read a byte at a time as libcurl reads it: a size of at most 16 hex
// digits, anything after them up to LF, the data, CRs then LF, and after the last chunk
// trailer lines (each ending in LF or CR LF; they are not kept) up to an empty one.
enum class Took { kWait, kEnded };
Took StepChunk(Request& r) {
  using Chunk = Wire::Chunk;
  Wire& w = r.hop.wire;
  auto bad = [&r] {
    Finish(r, CURLE_RECV_ERROR);
    return Took::kEnded;
  };
  while (w.in_at < w.in.size()) {
    if (w.chunk == Chunk::kData) {
      size_t n = 0;
      if (!PassBody(r, w.left, &n)) return w.on ? Took::kWait : Took::kEnded;
      w.left -= n;
      if (w.left == 0) w.chunk = Chunk::kDataEnd;
      continue;
    }
    const char c = w.in[w.in_at];
    bool advance = true;
    switch (w.chunk) {
      case Chunk::kSize: {
        const int v = HexValue(c);
        if (v >= 0) {
          if (++w.digits > 16 || w.left > (static_cast<uint64_t>(INT64_MAX) - v) / 16) return bad();
          w.left = w.left * 16 + static_cast<uint64_t>(v);
        } else if (w.digits == 0) {
          return bad();
        } else {
          w.chunk = Chunk::kSizeEnd;
          advance = false;
        }
        break;
      }
      case Chunk::kSizeEnd:
        if (c == '\n') {
          w.digits = 0;
          w.chunk = w.left == 0 ? Chunk::kTrailer : Chunk::kData;
        }
        break;
      case Chunk::kDataEnd:
        if (c == '\n') {
          w.chunk = Chunk::kSize;
        } else if (c != '\r') {
          return bad();
        }
        break;
      case Chunk::kTrailer:
        if (c != '\r' && c != '\n' && c != '\0') {
          w.in_trailer = true;
          w.trailer_field = w.trailer_field || c == ':';
        } else if (w.in_trailer || c == '\0') {
          // A trailer line is a field like any line of a head, without a NUL.
          if (!w.trailer_field || c == '\0') {
            Finish(r, CURLE_WEIRD_SERVER_REPLY);
            return Took::kEnded;
          }
          w.in_trailer = w.trailer_field = false;
          w.chunk = Chunk::kTrailerLf;
          advance = c == '\r';
        } else {
          w.chunk = Chunk::kTrailerEnd;
          advance = false;
        }
        break;
      case Chunk::kTrailerLf:
        if (c != '\n') return bad();
        w.chunk = Chunk::kTrailerEnd;
        break;
      case Chunk::kTrailerEnd:
        if (c != '\r' && c != '\n') {
          w.chunk = Chunk::kTrailer;  // another trailer line
          advance = false;
        } else {
          w.chunk = Chunk::kLast;
          advance = c == '\r';
        }
        break;
      case Chunk::kLast:
        if (c != '\n') return bad();
        ++w.in_at;
        Complete(r);
        return Took::kEnded;
      case Chunk::kData:
        break;
    }
    if (advance) ++w.in_at;
  }
  return Took::kWait;
}

// Takes what waits in the hop's input as far as it goes. True when the hop may read
// more; false when it ended or the reader's buffer is full.
bool Consume(Request& r) {
  Wire& w = r.hop.wire;
  for (;;) {
    if (w.stage == Wire::Stage::kHead) {
      auto fail = [&r](CURLcode code) {
        Finish(r, code);
        return false;
      };
      const size_t avail = w.in.size() - w.in_at;
      const char* p = w.in.data() + w.in_at;
      // The first line must be a status line (anything else is refused as soon as its
      // first bytes show it). After it, a line that starts with a line end ends the head
      // (what follows its CR LF, or its lone CR or LF, is the body), and every other line
      // must be a field, its length one that reads. No line may hold a NUL.
      const bool first = r.hop.head.text.empty();
      if (first && (avail >= 5 || std::memchr(p, '\n', avail) != nullptr) &&
          (avail < 5 || !EqualsNoCase(std::string_view(p, 5), "HTTP/"))) {
        return fail(CURLE_UNSUPPORTED_PROTOCOL);
      }
      std::string_view line = NextLine(w);
      if (line.empty()) return avail <= kMaxHeadLine || fail(CURLE_OUT_OF_MEMORY);
      const bool ends = !first && (line[0] == '\r' || line[0] == '\n');
      if (first && !StatusLine(line)) return fail(CURLE_UNSUPPORTED_PROTOCOL);
      const bool field = !first && !ends;
      uint64_t length = 0;
      if ((field && line.find(':') == std::string_view::npos) ||
          line.find('\0') != std::string_view::npos ||
          (field && EqualsNoCase(NameOf(line), "Content-Length") &&
           ReadLength(ValueOf(line), &length) == Length::kBad)) {
        return fail(CURLE_WEIRD_SERVER_REPLY);
      }
      if (ends) line = line.substr(0, line[0] == '\r' && line.size() > 1 && line[1] == '\n' ? 2 : 1);
      if (line.size() > kMaxHeadLine) return fail(CURLE_OUT_OF_MEMORY);
      if (r.hop.header_bytes + line.size() > kMaxHead) return fail(CURLE_RECV_ERROR);
      w.in_at += line.size();
      TakeHeaderLine(r, line);
      // After an interim head the real one follows (its text has been cleared).
      if (ends && !(r.hop.head.status >= 100 && r.hop.head.status < 200)) StartBody(r);
      continue;
    }
    size_t n = 0;
    switch (w.framing) {
      case Wire::Framing::kNone:
        Complete(r);
        return false;
      case Wire::Framing::kLength:
        if (!PassBody(r, w.left, &n)) return false;
        w.left -= n;
        if (w.left == 0) {
          Complete(r);
          return false;
        }
        return true;
      case Wire::Framing::kClose:
        return PassBody(r, UINT64_MAX, &n);
      case Wire::Framing::kChunked:
        return StepChunk(r) == Took::kWait && !r.paused;
    }
  }
}

// The server has closed the connection.
void AtEnd(Request& r) {
  Wire& w = r.hop.wire;
  if (w.stage == Wire::Stage::kHead) {
    // A head cut short ends the transfer without a response, as with libcurl.
    if (w.any_reply) return Finish(r, CURLE_OK);
    return Broken(r, CURLE_GOT_NOTHING);
  }
  if (w.framing == Wire::Framing::kClose) {
    w.keep_alive = false;
    return Complete(r);
  }
  Finish(r, CURLE_PARTIAL_FILE);
}

// Reads and takes the response until the socket has no more for now.
void StepReceive(Request& r) {
  Wire& w = r.hop.wire;
  for (;;) {
    if (!Consume(r) || !r.hop.wire.on || r.paused) return;
    if (!w.ready) return;
    if (w.in_at == w.in.size()) {
      w.in.clear();
      w.in_at = 0;
    }
    char buffer[kReadChunk];
    const ssize_t k = recv(r.core->wire_fd, buffer, sizeof(buffer), 0);
    if (k > 0) {
      w.any_reply = true;
      w.in.append(buffer, static_cast<size_t>(k));
      r.hop.t_io = Clock::now();
      // Less than asked for: the socket had no more.
      if (static_cast<size_t>(k) < sizeof(buffer)) w.ready = false;
      continue;
    }
    if (k == 0) return AtEnd(r);
    if (errno == EINTR) continue;
    if (errno == EAGAIN || errno == EWOULDBLOCK) {
      w.ready = false;
      return;
    }
    return Broken(r, CURLE_RECV_ERROR);
  }
}

// The only request of a sender's lane, when its hop runs here.
Request* WireRequest(const Core& core) {
  if (!core.own || core.requests.size() != 1) return nullptr;
  Request* r = core.requests.front().get();
  return r->hop.wire.on ? r : nullptr;
}

}  // namespace

void CloseWire(Core& core) {
  if (core.wire_fd < 0) return;
  close(core.wire_fd);
  core.wire_fd = -1;
  core.wire_peer.clear();
}

bool WireStart(Request& r, uint32_t* error) {
  *error = 0;
  Core& core = *r.core;
  Hop& hop = r.hop;
  const Settings& settings = *core.settings;
  if (!core.own || hop.secure || settings.cookies.load(std::memory_order_relaxed)) return false;
  if (!settings.http_proxy.empty() && !Bypassed(settings.bypass, hop.host)) return false;
  if (hop.verb == "HEAD" && hop.has_body) return false;
  if (!PlainHeaders(r)) return false;
  const bool reuse = core.wire_fd >= 0 && core.wire_peer == PeerKey(hop) && Quiet(core.wire_fd);
  Address to;
  if (!reuse && !KnownAddress(r, &to)) return false;
  Wire& w = hop.wire;
  w.on = true;
  WriteHead(r, &w.out);
  r.request_bytes = static_cast<uint32_t>(w.out.size());
  if (reuse) {
    w.reused = true;
    StartSending(r);
  } else {
    OpenConnection(r, to);
  }
  if (hop.wire.on && w.stage == Wire::Stage::kSend) StepSend(r);
  return true;
}

void WireStep(Request& r) {
  Wire& w = r.hop.wire;
  if (!w.on || r.done) return;
  if (w.stage == Wire::Stage::kConnect) {
    if (!w.ready) return;
    StepConnect(r);
  }
  if (w.on && w.stage == Wire::Stage::kSend && w.ready) StepSend(r);
  if (w.on && (w.stage == Wire::Stage::kHead || w.stage == Wire::Stage::kBody)) StepReceive(r);
}

void WireEnd(Request& r, bool reusable) {
  Wire& w = r.hop.wire;
  const bool keep = reusable && w.complete && w.keep_alive && w.in_at == w.in.size();
  if (!keep) CloseWire(*r.core);
  w.on = false;
  w.want = 0;
  r.paused = false;
}

bool WireWaitsFor(const Core& core, int* fd, short* events) {
  const Request* r = WireRequest(core);
  if (!r || r->paused || r->done || core.wire_fd < 0 || r->hop.wire.ready) return false;
  *fd = core.wire_fd;
  *events = r->hop.wire.want;
  return true;
}

void WireReady(Core& core, int fd) {
  Request* r = WireRequest(core);
  // Whatever woke the wait, the socket is tried: an error or a hang-up shows there.
  if (r && core.wire_fd == fd) r->hop.wire.ready = true;
}

void KeepCookie(Request& r, std::string_view text) {
  const Hop& hop = r.hop;
  std::string_view rest = TrimBlanks(text);
  const size_t semi = rest.find(';');
  const std::string_view pair = rest.substr(0, semi);
  rest = semi == std::string_view::npos ? std::string_view() : rest.substr(semi + 1);
  const size_t eq = pair.find('=');
  if (eq == std::string_view::npos) return;
  const std::string_view name = TrimBlanks(pair.substr(0, eq));
  const std::string_view value = TrimBlanks(pair.substr(eq + 1));
  if (name.empty()) return;
  std::string host = hop.host;
  for (char& c : host) c = Lower(c);
  std::string domain = host, path;
  bool tail = false, http_only = false, secure = false;
  long long expires = 0;  // a session cookie
  bool max_age = false;
  while (!rest.empty()) {
    const size_t next = rest.find(';');
    const std::string_view attr = TrimBlanks(rest.substr(0, next));
    rest = next == std::string_view::npos ? std::string_view() : rest.substr(next + 1);
    const size_t at = attr.find('=');
    const std::string_view key = TrimBlanks(attr.substr(0, at));
    const std::string_view arg =
        at == std::string_view::npos ? std::string_view() : TrimBlanks(attr.substr(at + 1));
    if (EqualsNoCase(key, "Secure")) {
      // Only this machine counts as a secure origin without TLS.
      if (host != "localhost" && host != "127.0.0.1" && host != "::1") return;
      secure = true;
    } else if (EqualsNoCase(key, "HttpOnly")) {
      http_only = true;
    } else if (EqualsNoCase(key, "Domain") && !arg.empty()) {
      std::string d(arg.front() == '.' ? arg.substr(1) : arg);
      for (char& c : d) c = Lower(c);
      const bool under = host.size() > d.size() && host.compare(host.size() - d.size(), d.size(), d) == 0 &&
                         host[host.size() - d.size() - 1] == '.';
      if (d != host && !under) return;  // not this server's to set
      Address literal;
      tail = !ParseAddress(host, 0, &literal);
      domain = std::move(d);
    } else if (EqualsNoCase(key, "Path") && !arg.empty() && arg.front() == '/') {
      path = std::string(arg);
    } else if (EqualsNoCase(key, "Max-Age") && !arg.empty()) {
      char* end = nullptr;
      const std::string digits(arg);
      const long long seconds = std::strtoll(digits.c_str(), &end, 10);
      if (end && *end == '\0') {
        max_age = true;
        expires = seconds <= 0 ? 1 : static_cast<long long>(std::time(nullptr)) + seconds;
      }
    } else if (EqualsNoCase(key, "Expires") && !max_age) {
      const time_t when = curl_getdate(std::string(arg).c_str(), nullptr);
      if (when > 0) expires = static_cast<long long>(when);
    }
  }
  if (path.empty()) {
    // The request's path up to its last '/'.
    const std::string_view target = std::string_view(hop.target).substr(0, hop.target.find('?'));
    const size_t slash = target.rfind('/');
    path = slash == 0 || slash == std::string_view::npos ? "/" : std::string(target.substr(0, slash));
  }
  std::string line = http_only ? "#HttpOnly_" : "";
  line += domain + '\t' + (tail ? "TRUE" : "FALSE") + '\t' + path + '\t' + (secure ? "TRUE" : "FALSE") + '\t' +
          std::to_string(expires) + '\t' + std::string(name) + '\t' + std::string(value);
  if (CURL* e = curl_easy_init()) {
    curl_easy_setopt(e, CURLOPT_SHARE, r.core->settings->share);
    curl_easy_setopt(e, CURLOPT_COOKIELIST, line.c_str());
    curl_easy_cleanup(e);
  }
}

}  // namespace tpcsdk::os::curlhttp
