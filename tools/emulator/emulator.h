// tdoc-emulator as a library: a local HTTP/1.1 service on loopback that answers
// the API directory and the service paths, records every request, and replies
// as tests script it, faults included. Tests drive it through its control API
// under /_emulator/ (see README.md), the same way whether it runs in their own
// process or as the tdoc-emulator program.
#pragma once
#include <memory>
#include <functional>
#include <string>

namespace tpcsdk::emulator {

struct Options {
  std::string bind = "127.0.0.1";
  int port = 0;  // 0: any free port
  enum class Tls { kNone, kSelfSigned, kExpired, kWrongName, kFiles };
  Tls tls = Tls::kNone;
  std::string cert_file;  // for kFiles, PEM
  std::string key_file;   // for kFiles, PEM
  bool verbose = false;   // one line per request on stderr
  std::string state_file;  // keeps the service model across runs; empty: memory only
  // Called (once, on a connection's thread, after the reply has gone) when a client
  // asks the emulator to end through POST /_emulator/shutdown; without it that call
  // is refused, so an emulator inside another program cannot be ended from outside.
  std::function<void()> on_shutdown;
};

class Emulator {
 public:
  Emulator();
  ~Emulator();  // stops
  Emulator(const Emulator&) = delete;
  Emulator& operator=(const Emulator&) = delete;

  // Binds, listens and starts serving; call it once per object. False with
  // `error` set when it cannot.
  bool Start(const Options& options, std::string* error);
  // Closes the listeners, ends every connection and joins all threads.
  void Stop();
  // "http://127.0.0.1:PORT" or "https://...", valid after Start.
  std::string BaseUrl() const;
  int Port() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace tpcsdk::emulator
