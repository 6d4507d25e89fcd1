#include "raw_client.h"

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <functional>

namespace emulator_test {

RawClient::RawClient(const std::string& base_url) {
  std::string rest = base_url.substr(base_url.find("://") + 3);
  size_t colon = rest.rfind(':');
  host_ = rest.substr(0, colon);
  std::string port = rest.substr(colon + 1);
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* res = nullptr;
  if (getaddrinfo(host_.c_str(), port.c_str(), &hints, &res) != 0) return;
  int fd = socket(res->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd >= 0 && connect(fd, res->ai_addr, res->ai_addrlen) == 0) {
    fd_ = fd;
  } else if (fd >= 0) {
    close(fd);
  }
  freeaddrinfo(res);
}

RawClient::~RawClient() { Close(); }

void RawClient::Close() {
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
}

bool RawClient::Send(const std::string& bytes) {
  size_t off = 0;
  while (off < bytes.size()) {
    ssize_t n = send(fd_, bytes.data() + off, bytes.size() - off, MSG_NOSIGNAL);
    if (n <= 0) return false;
    off += static_cast<size_t>(n);
  }
  return true;
}

bool RawClient::SendRequest(const std::string& method, const std::string& target,
                            const std::string& body) {
  return Send(method + " " + target + " HTTP/1.1\r\nHost: " + host_ +
              "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
}

bool RawClient::ReadSome(int bound_ms) {
  if (fd_ < 0 || closed_ || reset_) return false;
  pollfd p{fd_, POLLIN, 0};
  if (poll(&p, 1, bound_ms) <= 0) return false;
  char buf[65536];
  ssize_t n = recv(fd_, buf, sizeof(buf), 0);
  if (n > 0) {
    data_.append(buf, static_cast<size_t>(n));
    return true;
  }
  if (n == 0) closed_ = true;
  if (n < 0 && errno == ECONNRESET) reset_ = true;
  return false;
}

bool RawClient::ReadWhile(const std::function<bool()>& more, int bound_ms) {
  auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(bound_ms);
  while (more()) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        end - std::chrono::steady_clock::now());
    if (left.count() <= 0 || !ReadSome(static_cast<int>(left.count()))) return !more();
  }
  return true;
}

bool RawClient::ReadUntil(const std::string& pattern, int bound_ms) {
  return ReadWhile([&] { return data_.find(pattern) == std::string::npos; }, bound_ms);
}

bool RawClient::ReadToEnd(int bound_ms) {
  return ReadWhile([&] { return !closed_ && !reset_; }, bound_ms);
}

bool RawClient::ReadReply(size_t from, std::string* head, std::string* body, int* status,
                          int bound_ms) {
  return ReadWhile([&] { return !SplitReply(data_.substr(from), head, body, status); }, bound_ms);
}

bool RawClient::NothingPending() {
  pollfd p{fd_, POLLIN, 0};
  return poll(&p, 1, 0) == 0;
}

bool SplitReply(const std::string& raw, std::string* head, std::string* body, int* status) {
  size_t end = raw.find("\r\n\r\n");
  if (end == std::string::npos || raw.compare(0, 9, "HTTP/1.1 ") != 0) return false;
  *head = raw.substr(0, end + 2);
  *status = std::atoi(raw.c_str() + 9);
  std::string rest = raw.substr(end + 4);
  body->clear();
  if (head->find("Transfer-Encoding: chunked") != std::string::npos) {
    size_t pos = 0;
    for (;;) {
      size_t eol = rest.find("\r\n", pos);
      if (eol == std::string::npos) return false;
      size_t n = std::strtoul(rest.c_str() + pos, nullptr, 16);
      if (n == 0) return rest.compare(eol, 4, "\r\n\r\n") == 0;
      if (eol + 2 + n + 2 > rest.size()) return false;
      body->append(rest, eol + 2, n);
      pos = eol + 2 + n + 2;
    }
  }
  size_t cl = head->find("Content-Length: ");
  if (cl == std::string::npos) {
    *body = rest;  // delimited by the end of the connection
    return true;
  }
  size_t n = std::strtoul(head->c_str() + cl + 16, nullptr, 10);
  if (rest.size() < n) return false;
  *body = rest.substr(0, n);
  return true;
}

}  // namespace emulator_test
