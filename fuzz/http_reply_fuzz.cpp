// Fuzz target for the replies the Linux HTTP seam reads off the wire: a loopback server
// answers one GET with the input's bytes and closes. The GET runs twice, driven by its
// sender (plain HTTP read by the seam itself) and by the session's event thread
// (libcurl), and the two must take or refuse it alike, and read what they take the same:
// status, final head and body.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "os/http.h"
#include "support/utf.h"

using namespace tpcsdk::os;

namespace {

struct Outcome {
  uint32_t status = 0;
  std::u16string head;
  std::string body;
  uint32_t error = 0;
  std::atomic<bool> ended{false};
  std::vector<char> buffer;
};

void OnStatus(HttpHandle h, uintptr_t context, uint32_t status, void* info, uint32_t length) {
  auto* o = reinterpret_cast<Outcome*>(context);
  if (!o) return;
  switch (status) {
    case kHttpStatusSendRequestComplete:
      HttpReceiveResponse(h);
      break;
    case kHttpStatusHeadersAvailable: {
      uint32_t size = sizeof(o->status);
      HttpQueryHeaders(h, kHttpQueryStatusCode | kHttpQueryFlagNumber, nullptr, &o->status, &size,
                       nullptr);
      size = 0;
      HttpQueryHeaders(h, kHttpQueryRawHeadersCrlf, nullptr, nullptr, &size, nullptr);
      o->head.assign(size / 2 + 1, u'\0');
      size = static_cast<uint32_t>(o->head.size() * 2);
      if (HttpQueryHeaders(h, kHttpQueryRawHeadersCrlf, nullptr, o->head.data(), &size, nullptr)) {
        o->head.resize(size / 2);
      }
      HttpQueryDataAvailable(h);
      break;
    }
    case kHttpStatusDataAvailable: {
      const uint32_t n = *static_cast<uint32_t*>(info);
      if (n == 0) {
        o->ended = true;
        break;
      }
      o->buffer.assign(n, '\0');
      HttpReadData(h, o->buffer.data(), n);
      break;
    }
    case kHttpStatusReadComplete:
      o->body.append(static_cast<const char*>(info), length);
      HttpQueryDataAvailable(h);
      break;
    case kHttpStatusRequestError:
      o->error = static_cast<HttpAsyncResult*>(info)->error;
      o->ended = true;
      break;
    default:
      break;
  }
}

int Listen(uint16_t* port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof(a);
  if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&a), len) != 0 || listen(fd, 16) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) != 0) {
    std::abort();
  }
  *port = ntohs(a.sin_port);
  return fd;
}

// Accepts one connection, reads the request's head, sends the reply and closes. A
// client that kept an earlier connection finds it closed and opens this one.
void Serve(int listener, const std::string& reply) {
  const int c = accept(listener, nullptr, nullptr);
  if (c < 0) return;
  std::string in;
  char buf[4096];
  while (in.find("\r\n\r\n") == std::string::npos) {
    const ssize_t n = recv(c, buf, sizeof(buf), 0);
    if (n <= 0) break;
    in.append(buf, static_cast<size_t>(n));
  }
  for (size_t at = 0; at < reply.size();) {
    const ssize_t n = send(c, reply.data() + at, reply.size() - at, MSG_NOSIGNAL);
    if (n <= 0) break;
    at += static_cast<size_t>(n);
  }
  shutdown(c, SHUT_WR);
  close(c);
}

void Run(HttpHandle session, int listener, uint16_t port, const std::string& reply, bool sender,
         Outcome* o) {
  std::thread server(Serve, listener, reply);
  HttpHandle connect = HttpConnect(session, u"127.0.0.1", port);
  HttpHandle request = HttpOpenRequest(connect, u"GET", u"/f", sender ? kHttpFlagSenderDrives : 0);
  HttpSetStatusCallback(request, OnStatus, kHttpAllNotifications);
  // A redirect is a reply like any other here: following it would leave the server.
  const uint32_t never = kHttpRedirectPolicyNever;
  HttpSetOption(request, kHttpOptionRedirectPolicy, &never, sizeof(never));
  if (!HttpSendRequest(request, u"", nullptr, 0, 0, reinterpret_cast<uintptr_t>(o))) std::abort();
  if (sender) {
    HttpDriveUntil(request, [](void* p) { return static_cast<Outcome*>(p)->ended.load(); }, o);
  }
  while (!o->ended) std::this_thread::yield();
  HttpCloseHandle(request);
  HttpCloseHandle(connect);
  server.join();
}

// A head of printable ASCII lines, each ending in CR LF, up to the empty line, under a
// well-formed status line. How a broken
// head fails is each reader's own (they check its faults in another order), so only a
// reply with such a head is compared; every other reply must just end cleanly.
bool PlainHead(const std::string& reply) {
  const size_t end = reply.find("\r\n\r\n");
  if (end == std::string::npos) return false;
  // The status line: "HTTP/", a digit, '.', a digit, a blank, three digits, then the end
  // of the line or a blank.
  const char* shape = "HTTP/d.d ddd";
  for (size_t i = 0; shape[i]; ++i) {
    const char c = i < reply.size() ? reply[i] : '\0';
    if (shape[i] == 'd' ? !(c >= '0' && c <= '9') : c != shape[i]) return false;
  }
  if (reply[12] != ' ' && reply[12] != '\r') return false;
  for (size_t i = 0; i < end; ++i) {
    const unsigned char c = static_cast<unsigned char>(reply[i]);
    if (c == '\r' && reply[i + 1] == '\n') {
      ++i;
    } else if (c < 0x20 && c != '\t') {
      return false;
    } else if (c >= 0x7F) {
      return false;
    }
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static uint16_t port = 0;
  static const int listener = Listen(&port);
  // A session of its own for each input: a cookie one reply sets sends every later
  // request of its session through libcurl.
  const HttpHandle session = HttpOpen(u"fuzz/1.0", kHttpAccessTypeNoProxy, u"", u"", kHttpFlagAsync);
  const std::string reply(reinterpret_cast<const char*>(data), size);
  Outcome own, curl;
  Run(session, listener, port, reply, true, &own);
  Run(session, listener, port, reply, false, &curl);
  HttpCloseHandle(session);
  // A reply both take must read the same; one that libcurl refuses must be refused (the
  // error may name the fault otherwise).
  const bool agree = (own.error == 0) == (curl.error == 0);
  const bool read_alike = curl.error != 0 ||
                          (own.status == curl.status && own.head == curl.head && own.body == curl.body);
  const bool same = !PlainHead(reply) || (agree && read_alike);
  if (!same) {
    std::fprintf(stderr, "own: %u %u body %zu | libcurl: %u %u body %zu\n", own.status, own.error,
                 own.body.size(), curl.status, curl.error, curl.body.size());
    __builtin_trap();
  }
  return 0;
}
