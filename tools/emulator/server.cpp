// The emulator's HTTP/1.1 server: one thread per listener accepting, one
// thread per connection serving requests in turn. Raw sockets (and OpenSSL on
// top of them for TLS) so that every fault can be produced byte by byte:
// partial bodies, separate flushes, resets, holds.
#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/sockios.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <list>
#include <thread>
#include <utility>

#include "control.h"
#include "emulator.h"
#include "state.h"
#include "tls.h"

namespace tpcsdk::emulator {
namespace {

constexpr size_t kMaxHead = 1 << 20;
constexpr uint64_t kMaxBody = 256ull << 20;
const char kDefaultEnvelope[] = "{\"ret\":0,\"message\":\"\",\"returned\":0,\"data\":[]}";
const char kBrokenJson[] = "{\"ret\":0,\"message\":\"\",\"returned\":1,\"data\":[{\"id\":";

int64_t UnixMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// "127.0.0.1" or "[::1]" for an address; port through `port`.
std::string AddressText(const sockaddr_storage& ss, int* port) {
  char buf[INET6_ADDRSTRLEN] = {0};
  if (ss.ss_family == AF_INET) {
    const auto* a = reinterpret_cast<const sockaddr_in*>(&ss);
    inet_ntop(AF_INET, &a->sin_addr, buf, sizeof(buf));
    *port = ntohs(a->sin_port);
    return buf;
  }
  const auto* a = reinterpret_cast<const sockaddr_in6*>(&ss);
  *port = ntohs(a->sin6_port);
  if (IN6_IS_ADDR_V4MAPPED(&a->sin6_addr)) {
    inet_ntop(AF_INET, reinterpret_cast<const char*>(&a->sin6_addr) + 12, buf, sizeof(buf));
    return buf;
  }
  inet_ntop(AF_INET6, &a->sin6_addr, buf, sizeof(buf));
  return std::string("[") + buf + "]";
}

std::string Hex(size_t n) {
  char buf[32];
  std::snprintf(buf, sizeof(buf), "%zx", n);
  return buf;
}

enum class After { kKeep, kClose, kReset };
enum class WaitEnd { kReleased, kTimeout, kAborted, kPeerClosed };

struct Listener {
  int fd = -1;
  SSL_CTX* ctx = nullptr;
  std::string scheme;  // "http" or "https"
  std::string kind;    // "plain", "valid", "expired", "wrong_name", "files"
  std::string base;
  std::thread thread;
};

struct Connection {
  int fd = -1;
  SSL* ssl = nullptr;
  Listener* listener = nullptr;
  std::string base;  // scheme://local-address:port of this connection
  std::string peer;
  std::thread thread;
  std::atomic<bool> finished{false};
};

// Reads and writes one connection, plain or TLS.
class Stream {
 public:
  explicit Stream(Connection* c) : c_(c) {}
  // >0 bytes read, 0 the peer closed, <0 an error.
  long Read(char* buf, size_t n) {
    if (c_->ssl != nullptr) {
      int r = SSL_read(c_->ssl, buf, static_cast<int>(std::min<size_t>(n, INT32_MAX)));
      if (r > 0) return r;
      int e = SSL_get_error(c_->ssl, r);
      return e == SSL_ERROR_ZERO_RETURN ? 0 : -1;
    }
    for (;;) {
      ssize_t r = recv(c_->fd, buf, n, 0);
      if (r < 0 && errno == EINTR) continue;
      return static_cast<long>(r);
    }
  }
  bool Write(const std::string& s) {
    size_t off = 0;
    while (off < s.size()) {
      if (c_->ssl != nullptr) {
        int w = SSL_write(c_->ssl, s.data() + off,
                          static_cast<int>(std::min<size_t>(s.size() - off, 1 << 20)));
        if (w <= 0) return false;
        off += static_cast<size_t>(w);
      } else {
        ssize_t w = send(c_->fd, s.data() + off, s.size() - off, MSG_NOSIGNAL);
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) return false;
        off += static_cast<size_t>(w);
      }
    }
    return true;
  }

 private:
  Connection* c_;
};

enum class ReadResult { kOk, kClosed, kBad };

}  // namespace

struct Emulator::Impl : ControlHost {
  Options opt;
  State state;
  std::mutex mu;  // listeners, connections, stopping
  std::list<std::unique_ptr<Listener>> listeners;
  std::list<std::unique_ptr<Connection>> conns;
  int wake[2] = {-1, -1};
  bool stopping = false;
  bool started = false;
  bool shutdown_requested = false;
  std::string base;
  int port = 0;

  ~Impl() override = default;

  // ---- listeners ---------------------------------------------------------

  bool OpenListener(SSL_CTX* ctx, const std::string& kind, int want_port, Listener** out,
                    std::string* error) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
    addrinfo* res = nullptr;
    std::string port_text = std::to_string(want_port);
    int rc = getaddrinfo(opt.bind.c_str(), port_text.c_str(), &hints, &res);
    if (rc != 0 || res == nullptr) {
      *error = "cannot resolve bind address '" + opt.bind + "': " + gai_strerror(rc);
      return false;
    }
    int fd = socket(res->ai_family, res->ai_socktype | SOCK_CLOEXEC, res->ai_protocol);
    int one = 1;
    bool ok = fd >= 0 && setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one)) == 0 &&
              bind(fd, res->ai_addr, res->ai_addrlen) == 0 && listen(fd, 1024) == 0;
    freeaddrinfo(res);
    if (!ok) {
      *error = "cannot listen on " + opt.bind + ":" + port_text + ": " + std::strerror(errno);
      if (fd >= 0) close(fd);
      return false;
    }
    sockaddr_storage ss{};
    socklen_t len = sizeof(ss);
    getsockname(fd, reinterpret_cast<sockaddr*>(&ss), &len);
    int bound_port = 0;
    std::string host = AddressText(ss, &bound_port);
    if (host == "0.0.0.0") host = "127.0.0.1";
    if (host == "[::]") host = "[::1]";
    auto l = std::make_unique<Listener>();
    l->fd = fd;
    l->ctx = ctx;
    l->scheme = ctx != nullptr ? "https" : "http";
    l->kind = kind;
    l->base = l->scheme + "://" + host + ":" + std::to_string(bound_port);
    Listener* raw = l.get();
    listeners.push_back(std::move(l));
    raw->thread = std::thread([this, raw] { AcceptLoop(raw); });
    *out = raw;
    return true;
  }

  bool OpenTlsListener(CertKind kind, std::string* out_base, std::string* error) override {
    std::lock_guard<std::mutex> lock(mu);
    if (stopping) {
      *error = "stopping";
      return false;
    }
    for (const auto& l : listeners) {
      if (l->kind == CertKindName(kind)) {
        *out_base = l->base;
        return true;
      }
    }
    SSL_CTX* ctx = MakeSelfSignedContext(kind, opt.bind, error);
    if (ctx == nullptr) return false;
    Listener* l = nullptr;
    if (!OpenListener(ctx, CertKindName(kind), 0, &l, error)) {
      SSL_CTX_free(ctx);
      return false;
    }
    *out_base = l->base;
    return true;
  }

  bool RequestShutdown() override {
    if (!opt.on_shutdown) return false;
    std::lock_guard<std::mutex> lock(mu);
    shutdown_requested = true;
    return true;
  }

  bool TakeShutdownRequest() {
    std::lock_guard<std::mutex> lock(mu);
    return std::exchange(shutdown_requested, false);
  }

  Json::Value ListenersJson() override {
    std::lock_guard<std::mutex> lock(mu);
    Json::Value out(Json::arrayValue);
    for (const auto& l : listeners) {
      Json::Value e(Json::objectValue);
      e["base"] = l->base;
      e["tls"] = l->ctx != nullptr;
      e["kind"] = l->kind;
      out.append(e);
    }
    return out;
  }

  void AcceptLoop(Listener* l) {
    for (;;) {
      pollfd p[2] = {{l->fd, POLLIN, 0}, {wake[0], POLLIN, 0}};
      int n = poll(p, 2, -1);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0 || (p[1].revents & POLLIN) != 0) return;
      if ((p[0].revents & POLLIN) == 0) continue;
      sockaddr_storage peer{};
      socklen_t plen = sizeof(peer);
      int fd = accept4(l->fd, reinterpret_cast<sockaddr*>(&peer), &plen, SOCK_CLOEXEC);
      if (fd < 0) continue;
      int one = 1;
      setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
      auto c = std::make_unique<Connection>();
      c->fd = fd;
      c->listener = l;
      int peer_port = 0;
      c->peer = AddressText(peer, &peer_port);
      c->peer += ":" + std::to_string(peer_port);
      sockaddr_storage local{};
      socklen_t llen = sizeof(local);
      getsockname(fd, reinterpret_cast<sockaddr*>(&local), &llen);
      int local_port = 0;
      std::string host = AddressText(local, &local_port);
      c->base = l->scheme + "://" + host + ":" + std::to_string(local_port);

      std::list<std::unique_ptr<Connection>> done;
      {
        std::lock_guard<std::mutex> lock(mu);
        if (stopping) {
          close(fd);
          return;
        }
        for (auto it = conns.begin(); it != conns.end();) {
          if ((*it)->finished.load()) {
            done.push_back(std::move(*it));
            it = conns.erase(it);
          } else {
            ++it;
          }
        }
        Connection* raw = c.get();
        conns.push_back(std::move(c));
        raw->thread = std::thread([this, raw] { Serve(raw); });
      }
      for (auto& d : done) d->thread.join();
    }
  }

  // ---- one connection ----------------------------------------------------

  void CloseConnection(Connection* c, After how) {
    if (c->ssl != nullptr) {
      if (how != After::kReset) SSL_shutdown(c->ssl);
      SSL_free(c->ssl);
      c->ssl = nullptr;
    }
    if (how == After::kReset) {
      // Let what was written reach the peer first (bounded to a second), so
      // that the reset comes after those bytes and not instead of them. The
      // descriptor stays open until this thread closes it below.
      for (int i = 0; i < 200; ++i) {
        int pending = 0;
        if (ioctl(c->fd, SIOCOUTQ, &pending) != 0 || pending == 0) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
      }
    }
    std::lock_guard<std::mutex> lock(mu);
    if (c->fd < 0) return;
    if (how == After::kReset) {
      linger lg{1, 0};
      setsockopt(c->fd, SOL_SOCKET, SO_LINGER, &lg, sizeof(lg));
    }
    close(c->fd);
    c->fd = -1;
  }

  void Serve(Connection* c) {
    After end = After::kClose;
    if (c->listener->ctx != nullptr) {
      c->ssl = SSL_new(c->listener->ctx);
      if (c->ssl == nullptr || SSL_set_fd(c->ssl, c->fd) != 1 || SSL_accept(c->ssl) != 1) {
        CloseConnection(c, After::kClose);
        c->finished = true;
        return;
      }
    }
    Stream io(c);
    std::string in;
    for (;;) {
      Request req;
      int bad_status = 400;
      ReadResult r = ReadRequest(c, &io, &in, &req, &bad_status);
      if (r == ReadResult::kClosed) break;
      if (r == ReadResult::kBad) {
        Reply rep;
        rep.status = bad_status;
        rep.headers.emplace_back("Content-Type", "text/plain");
        rep.body = ReasonPhrase(bad_status) + "\n";
        Deliver(c, &io, req, rep, nullptr, false);
        break;
      }
      bool keep = WantsKeepAlive(req);
      After a;
      if (IsControlPath(req)) {
        a = Deliver(c, &io, req, HandleControl(&state, this, req), nullptr, keep);
        if (TakeShutdownRequest()) opt.on_shutdown();
      } else {
        state.Log(&req);
        if (opt.verbose) {
          std::fprintf(stderr, "tdoc-emulator: #%llu %s %s (%zu body bytes)\n",
                       static_cast<unsigned long long>(req.seq), req.method.c_str(),
                       req.target.c_str(), req.body.size());
        }
        a = Answer(c, &io, req, keep);
      }
      if (a != After::kKeep) {
        end = a;
        break;
      }
    }
    CloseConnection(c, end);
    c->finished = true;
  }

  static bool WantsKeepAlive(const Request& req) {
    const std::string* conn = req.Header("Connection");
    std::string v;
    if (conn != nullptr) {
      for (char ch : *conn) v += static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
    }
    if (v.find("close") != std::string::npos) return false;
    if (req.version == "HTTP/1.0") return v.find("keep-alive") != std::string::npos;
    return true;
  }

  ReadResult ReadRequest(Connection* c, Stream* io, std::string* in, Request* req,
                         int* bad_status) {
    char buf[16384];
    size_t head_len = 0;
    while (FindHeadEnd(*in, &head_len) != HeadStatus::kComplete) {
      if (in->size() > kMaxHead) {
        *bad_status = 431;
        return ReadResult::kBad;
      }
      long n = io->Read(buf, sizeof(buf));
      if (n <= 0) return ReadResult::kClosed;
      in->append(buf, static_cast<size_t>(n));
    }
    req->time_ms = state.NowMs();
    req->unix_ms = UnixMs();
    req->tls = c->ssl != nullptr;
    req->listener = c->base;
    req->peer = c->peer;
    std::string error;
    std::string head = in->substr(0, head_len);
    in->erase(0, head_len);
    BodyFraming framing;
    if (!ParseHead(head, req, &error) || !GetBodyFraming(*req, &framing, &error)) {
      return ReadResult::kBad;
    }
    if (!framing.chunked && framing.length > kMaxBody) {
      *bad_status = 413;
      return ReadResult::kBad;
    }
    const std::string* expect = req->Header("Expect");
    bool has_body = framing.chunked || framing.length > 0;
    if (expect != nullptr && EqualsNoCase(*expect, "100-continue") && has_body && in->empty()) {
      if (!io->Write("HTTP/1.1 100 Continue\r\n\r\n")) return ReadResult::kClosed;
    }
    if (framing.chunked) {
      ChunkedDecoder dec;
      for (;;) {
        size_t used = 0;
        if (!dec.Feed(in->data(), in->size(), &used)) return ReadResult::kBad;
        in->erase(0, used);
        if (dec.done()) break;
        if (dec.body().size() > kMaxBody) {
          *bad_status = 413;
          return ReadResult::kBad;
        }
        long n = io->Read(buf, sizeof(buf));
        if (n <= 0) return ReadResult::kClosed;
        in->append(buf, static_cast<size_t>(n));
      }
      req->body.swap(dec.body());
    } else {
      while (in->size() < framing.length) {
        long n = io->Read(buf, sizeof(buf));
        if (n <= 0) return ReadResult::kClosed;
        in->append(buf, static_cast<size_t>(n));
      }
      req->body = in->substr(0, framing.length);
      in->erase(0, framing.length);
    }
    return ReadResult::kOk;
  }

  // Holds the connection until released (listed waits), until `timeout_ms`
  // passes (when >= 0), until the peer closes, or until reset or stop.
  WaitEnd Hold(Connection* c, const Request& req, const char* phase, bool listed,
               int timeout_ms) {
    auto w = state.BeginWait(req, phase, listed);
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    WaitEnd end;
    for (;;) {
      int o = w->outcome.load();
      if (o == Wait::kReleased) {
        end = WaitEnd::kReleased;
        break;
      }
      if (o == Wait::kAborted) {
        end = WaitEnd::kAborted;
        break;
      }
      int wait_ms = -1;
      if (timeout_ms >= 0) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        wait_ms = static_cast<int>(std::max<int64_t>(0, left.count()));
      }
      pollfd p[2] = {{c->fd, POLLRDHUP, 0}, {w->pipe_r, POLLIN, 0}};
      int n = poll(p, 2, wait_ms);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) {
        end = WaitEnd::kAborted;
        break;
      }
      if (n == 0) {
        end = WaitEnd::kTimeout;
        break;
      }
      if ((p[0].revents & (POLLRDHUP | POLLHUP | POLLERR | POLLNVAL)) != 0) {
        end = WaitEnd::kPeerClosed;
        break;
      }
    }
    state.EndWait(w);
    return end;
  }

  After Answer(Connection* c, Stream* io, const Request& req, bool keep) {
    FaultRule fault;
    bool has_fault = state.TakeFault(req, &fault);
    Reply reply;
    if (!state.TakeScript(req, &reply)) reply = BuiltIn(req);
    if (!has_fault && (reply.pace_ms > 0 || reply.chunked)) {
      // Slow and chunked files go out in pieces, as a chunks fault sends them.
      fault.kind = FaultKind::kChunks;
      fault.count = 8;
      fault.gap_ms = reply.pace_ms;
      fault.chunked = reply.chunked;
      has_fault = true;
    }
    return Deliver(c, io, req, std::move(reply), has_fault ? &fault : nullptr, keep);
  }

  Reply BuiltIn(const Request& req) {
    static const std::string kDirectory = "/tdocApi.json";
    std::string path = req.DecodedPath();
    if ((req.method == "GET" || req.method == "HEAD") && path.size() >= kDirectory.size() &&
        path.compare(path.size() - kDirectory.size(), kDirectory.size(), kDirectory) == 0) {
      return BuildDirectory(req.listener, state.Directory());
    }
    Reply r;
    if (state.model().Answer(req, &r) || state.messages().Answer(req, &r)) return r;
    r.headers.emplace_back("Content-Type", "application/json");
    r.body = kDefaultEnvelope;
    return r;
  }

  // Writes `reply`, shaped by `f` when a fault applies.
  After Deliver(Connection* c, Stream* io, const Request& req, Reply reply, const FaultRule* f,
                bool keep) {
    const FaultKind kind = f != nullptr ? f->kind : FaultKind::kDelay;
    auto is = [&](FaultKind k) { return f != nullptr && kind == k; };
    auto offset = [&](size_t size) {
      return f->at < 0 ? size / 2 : static_cast<size_t>(std::min<int64_t>(f->at, size));
    };

    if (is(FaultKind::kZeroByte)) reply.body.insert(offset(reply.body.size()), 1, '\0');
    if (is(FaultKind::kMalformedJson)) reply.body = f->has_body ? f->body : kBrokenJson;
    if (is(FaultKind::kNonObject)) reply.body = f->has_body ? f->body : "[]";
    if (is(FaultKind::kEmptyBody)) {
      reply.status = f->status > 0 ? f->status : 200;
      reply.body.clear();
    }
    if (is(FaultKind::kContentLengthZero)) reply.body.clear();
    if (is(FaultKind::kDelay) && Hold(c, req, "delay", false, f->ms) != WaitEnd::kTimeout)
      return After::kClose;
    if (is(FaultKind::kStallBeforeHeaders) &&
        Hold(c, req, "before_headers", true, -1) != WaitEnd::kReleased)
      return After::kClose;
    if (is(FaultKind::kResetBeforeHeaders)) return After::kReset;
    if (is(FaultKind::kCloseBeforeHeaders)) return After::kClose;

    const bool mid_body = is(FaultKind::kStallMidBody) || is(FaultKind::kResetMidBody) ||
                          is(FaultKind::kCloseMidBody);
    bool raw = false;  // the reply names its own framing and is sent as it stands
    for (const auto& h : reply.headers) {
      if (EqualsNoCase(h.first, "Content-Length") || EqualsNoCase(h.first, "Transfer-Encoding"))
        raw = true;
    }
    const bool by_close = is(FaultKind::kEmptyBody) && f->framing == "close";
    const bool chunked =
        !raw && ((f != nullptr && (kind == FaultKind::kChunks || mid_body) && f->chunked) ||
                 (is(FaultKind::kEmptyBody) && f->framing == "chunked"));
    if (raw || by_close) keep = false;

    if (reply.status == 204 || reply.status == 304) reply.body.clear();
    std::string head =
        "HTTP/1.1 " + std::to_string(reply.status) + " " + ReasonPhrase(reply.status) + "\r\n";
    for (const auto& h : reply.headers) head += h.first + ": " + h.second + "\r\n";
    if (!raw && chunked) head += "Transfer-Encoding: chunked\r\n";
    if (!raw && !chunked && !by_close)
      head += "Content-Length: " + std::to_string(reply.body.size()) + "\r\n";
    if (!keep) head += "Connection: close\r\n";
    head += "\r\n";
    if (req.method == "HEAD") {
      if (!io->Write(head)) return After::kClose;
      return keep ? After::kKeep : After::kClose;
    }

    std::vector<std::string> pieces;
    if (is(FaultKind::kChunks)) {
      size_t n = std::max<size_t>(1, std::min<size_t>(static_cast<size_t>(f->count),
                                                      reply.body.size()));
      size_t base = reply.body.size() / n, extra = reply.body.size() % n, pos = 0;
      for (size_t i = 0; i < n; ++i) {
        size_t len = base + (i < extra ? 1 : 0);
        pieces.push_back(reply.body.substr(pos, len));
        pos += len;
      }
    } else if (mid_body) {
      size_t at = offset(reply.body.size());
      pieces.push_back(reply.body.substr(0, at));
      pieces.push_back(reply.body.substr(at));
    } else {
      pieces.push_back(reply.body);
    }
    auto frame = [&](const std::string& p) {
      if (!chunked || p.empty()) return p;
      return Hex(p.size()) + "\r\n" + p + "\r\n";
    };

    // The head goes out on its own; each piece is then written separately,
    // and TCP_NODELAY sends each write at once.
    if (!io->Write(pieces.size() == 1 ? head + frame(pieces[0]) : head)) return After::kClose;
    for (size_t i = 0; i < pieces.size() && pieces.size() > 1; ++i) {
      if (i > 0) {
        if (is(FaultKind::kResetMidBody)) return After::kReset;
        if (is(FaultKind::kCloseMidBody)) return After::kClose;
        if (is(FaultKind::kStallMidBody) &&
            Hold(c, req, "mid_body", true, -1) != WaitEnd::kReleased)
          return After::kClose;
        if (is(FaultKind::kChunks) && f->step &&
            Hold(c, req, "between_chunks", true, -1) != WaitEnd::kReleased)
          return After::kClose;
        if (is(FaultKind::kChunks) && !f->step && f->gap_ms > 0 &&
            Hold(c, req, "gap", false, f->gap_ms) != WaitEnd::kTimeout)
          return After::kClose;
      }
      if (!pieces[i].empty() && !io->Write(frame(pieces[i]))) return After::kClose;
    }
    if (chunked && !io->Write("0\r\n\r\n")) return After::kClose;
    return keep ? After::kKeep : After::kClose;
  }

  // ---- start and stop ----------------------------------------------------

  bool Start(const Options& o, std::string* error) {
    if (started || wake[0] >= 0) {
      *error = "already started";
      return false;
    }
    opt = o;
    // A write to a peer that has gone must not end the process.
    struct sigaction old {};
    if (sigaction(SIGPIPE, nullptr, &old) == 0 && old.sa_handler == SIG_DFL)
      signal(SIGPIPE, SIG_IGN);
    if (pipe2(wake, O_CLOEXEC) != 0) {
      *error = std::string("pipe: ") + std::strerror(errno);
      return false;
    }
    SSL_CTX* ctx = nullptr;
    std::string kind = "plain";
    switch (o.tls) {
      case Options::Tls::kNone:
        break;
      case Options::Tls::kSelfSigned:
        ctx = MakeSelfSignedContext(CertKind::kValid, o.bind, error);
        kind = "valid";
        break;
      case Options::Tls::kExpired:
        ctx = MakeSelfSignedContext(CertKind::kExpired, o.bind, error);
        kind = "expired";
        break;
      case Options::Tls::kWrongName:
        ctx = MakeSelfSignedContext(CertKind::kWrongName, o.bind, error);
        kind = "wrong_name";
        break;
      case Options::Tls::kFiles:
        ctx = MakeFileContext(o.cert_file, o.key_file, error);
        kind = "files";
        break;
    }
    if (o.tls != Options::Tls::kNone && ctx == nullptr) return false;
    if (!o.state_file.empty() && !state.model().UseStateFile(o.state_file, error)) {
      if (ctx != nullptr) SSL_CTX_free(ctx);
      return false;
    }
    std::lock_guard<std::mutex> lock(mu);
    Listener* l = nullptr;
    if (!OpenListener(ctx, kind, o.port, &l, error)) {
      if (ctx != nullptr) SSL_CTX_free(ctx);
      return false;
    }
    base = l->base;
    port = std::atoi(base.substr(base.rfind(':') + 1).c_str());
    started = true;
    return true;
  }

  void Stop() {
    {
      std::lock_guard<std::mutex> lock(mu);
      if (stopping) return;
      stopping = true;
    }
    if (!started) {
      CloseWakePipe();
      return;
    }
    state.Shutdown();
    char b = 1;
    ssize_t w = write(wake[1], &b, 1);
    (void)w;
    // No listener is added once `stopping` is set, so the list is stable.
    for (auto& l : listeners) l->thread.join();
    std::list<std::unique_ptr<Connection>> all;
    {
      std::lock_guard<std::mutex> lock(mu);
      for (auto& c : conns) {
        if (c->fd >= 0) shutdown(c->fd, SHUT_RDWR);
      }
      all.swap(conns);
    }
    for (auto& c : all) c->thread.join();
    for (auto& l : listeners) {
      close(l->fd);
      if (l->ctx != nullptr) SSL_CTX_free(l->ctx);
    }
    listeners.clear();
    CloseWakePipe();
  }

  void CloseWakePipe() {
    for (int& fd : wake) {
      if (fd >= 0) close(fd);
      fd = -1;
    }
  }
};

Emulator::Emulator() : impl_(std::make_unique<Impl>()) {}
Emulator::~Emulator() { Stop(); }

bool Emulator::Start(const Options& options, std::string* error) {
  std::string ignored;
  return impl_->Start(options, error != nullptr ? error : &ignored);
}

void Emulator::Stop() { impl_->Stop(); }
std::string Emulator::BaseUrl() const { return impl_->base; }
int Emulator::Port() const { return impl_->port; }

}  // namespace tpcsdk::emulator
