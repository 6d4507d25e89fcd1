#include "http/raw_server.h"

#ifdef _WIN32
#include <winsock2.h>
#include <windows.h>
#include <ws2tcpip.h>
using socklen_t = int;
#else
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#endif

#include <cstdlib>

#include "kit/testkit.h"

namespace httptest {
namespace {

#ifdef _WIN32
struct WinsockInit {
  WinsockInit() {
    WSADATA d;
    WSAStartup(MAKEWORD(2, 2), &d);
  }
};
void EnsureSockets() { static WinsockInit init; }
void CloseSocket(intptr_t s) { closesocket(static_cast<SOCKET>(s)); }
#else
void EnsureSockets() {}
void CloseSocket(intptr_t s) { ::close(static_cast<int>(s)); }
#endif

intptr_t Listen(uint16_t* port) {
  EnsureSockets();
  const intptr_t s = static_cast<intptr_t>(socket(AF_INET, SOCK_STREAM, 0));
  sockaddr_in a = {};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof(a);
  if (bind(s, reinterpret_cast<sockaddr*>(&a), sizeof(a)) != 0 || listen(s, 64) != 0 ||
      getsockname(s, reinterpret_cast<sockaddr*>(&a), &len) != 0) {
    std::abort();
  }
  *port = ntohs(a.sin_port);
  return s;
}

// Waits until the socket is readable; false when the bound passes.
bool Readable(intptr_t s, int ms) {
#ifdef _WIN32
  WSAPOLLFD p = {static_cast<SOCKET>(s), POLLRDNORM, 0};
  return WSAPoll(&p, 1, ms) > 0;
#else
  pollfd p = {static_cast<int>(s), POLLIN, 0};
  return poll(&p, 1, ms) > 0;
#endif
}

}  // namespace

Connection::~Connection() {
  if (s_ != -1) CloseSocket(s_);
}

bool Connection::Read(Received* out) {
  size_t end;
  char buf[4096];
  while ((end = pending_.find("\r\n\r\n")) == std::string::npos) {
    if (!Readable(s_, 10000)) return false;
    const int n = recv(s_, buf, sizeof(buf), 0);
    if (n <= 0) return false;
    pending_.append(buf, static_cast<size_t>(n));
  }
  out->head = pending_.substr(0, end + 4);
  out->request_line = pending_.substr(0, pending_.find("\r\n"));
  size_t length = 0;
  const size_t cl = out->head.find("Content-Length: ");
  if (cl != std::string::npos) length = std::strtoul(out->head.c_str() + cl + 16, nullptr, 10);
  while (pending_.size() < end + 4 + length) {
    if (!Readable(s_, 10000)) return false;
    const int n = recv(s_, buf, sizeof(buf), 0);
    if (n <= 0) return false;
    pending_.append(buf, static_cast<size_t>(n));
  }
  out->body = pending_.substr(end + 4, length);
  pending_.erase(0, end + 4 + length);
  return true;
}

void Connection::Send(const std::string& bytes) {
  size_t off = 0;
  while (off < bytes.size()) {
    const int n = send(s_, bytes.data() + off, static_cast<int>(bytes.size() - off), 0);
    if (n <= 0) return;
    off += static_cast<size_t>(n);
  }
}

void Connection::Reset() {
  linger l = {1, 0};
  setsockopt(s_, SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&l), sizeof(l));
  CloseSocket(s_);
  s_ = -1;
}

bool Connection::PeerClosedWithin(int ms) {
  char buf[256];
  while (Readable(s_, ms)) {
    if (recv(s_, buf, sizeof(buf), 0) <= 0) return true;
  }
  return false;
}

RawServer::RawServer(Script script) : script_(std::move(script)) {
  listener_ = Listen(&port_);
  accept_ = std::thread([this] { AcceptLoop(); });
}

RawServer::~RawServer() {
#ifdef _WIN32
  closesocket(static_cast<SOCKET>(listener_));
#else
  shutdown(static_cast<int>(listener_), SHUT_RDWR);
  ::close(static_cast<int>(listener_));
#endif
  accept_.join();
  for (auto& t : workers_) t.join();
}

void RawServer::AcceptLoop() {
  for (;;) {
    const intptr_t c = static_cast<intptr_t>(accept(listener_, nullptr, nullptr));
    if (c == -1 || c == static_cast<intptr_t>(~static_cast<uintptr_t>(0))) return;
    // Each Send leaves as its own segment, so a script's split writes reach the client
    // as split as the network lets them.
    const int one = 1;
    setsockopt(c, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&one), sizeof(one));
    std::lock_guard<std::mutex> lock(mu_);
    workers_.emplace_back([this, c] {
      Connection conn(c);
      script_(conn);
    });
  }
}

std::vector<Received> RawServer::received() {
  std::lock_guard<std::mutex> lock(mu_);
  return received_;
}

void RawServer::Record(const Received& r) {
  std::lock_guard<std::mutex> lock(mu_);
  received_.push_back(r);
}

bool UnderWine() { return testkit::UnderWine(); }

uint16_t ClosedPort() {
  uint16_t port = 0;
  CloseSocket(Listen(&port));
  return port;
}

}  // namespace httptest
