// A tiny HTTP/1.1 server on loopback for driving the HTTP seam byte by byte: each
// connection runs a script given by the test, which reads the request and answers
// with whatever bytes, pauses, closes or resets it wants. Builds on POSIX and winsock.
#pragma once
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace httptest {

struct Received {
  std::string request_line;  // "GET /p?q HTTP/1.1"
  std::string head;          // the whole head, request line included
  std::string body;
};

class Connection {
 public:
  explicit Connection(intptr_t socket) : s_(socket) {}
  ~Connection();
  // Reads one request (head, and a body by Content-Length). False on a closed peer.
  bool Read(Received* out);
  void Send(const std::string& bytes);
  // Closes with a reset (linger 0) instead of an orderly shutdown.
  void Reset();
  // True when the peer closes the connection within the bound.
  bool PeerClosedWithin(int ms);

 private:
  intptr_t s_;
  std::string pending_;
};

class RawServer {
 public:
  using Script = std::function<void(Connection&)>;
  explicit RawServer(Script script);
  ~RawServer();
  uint16_t port() const { return port_; }
  std::vector<Received> received();
  // Records a request for received(); scripts call it after Read.
  void Record(const Received& r);

 private:
  void AcceptLoop();
  Script script_;
  intptr_t listener_ = -1;
  uint16_t port_ = 0;
  std::thread accept_;
  std::mutex mu_;
  std::vector<std::thread> workers_;
  std::vector<Received> received_;
};

// A loopback port with nothing listening on it.
uint16_t ClosedPort();

// True when the Windows build runs under wine, whose WinHTTP lacks a few behaviours.
bool UnderWine();

}  // namespace httptest
