// The control API under /_emulator/: JSON in, JSON out. README.md lists the
// endpoints and their shapes.
#pragma once
#include <json/json.h>

#include <string>

#include "state.h"
#include "tls.h"

namespace tpcsdk::emulator {

// What the control API needs from the server around it.
class ControlHost {
 public:
  virtual ~ControlHost() = default;
  // Opens (or finds) an extra TLS listener with a certificate of that kind.
  virtual bool OpenTlsListener(CertKind kind, std::string* base, std::string* error) = 0;
  virtual Json::Value ListenersJson() = 0;
  // Arranges for the program to end after this reply; false when it may not.
  virtual bool RequestShutdown() = 0;
};

constexpr const char kControlPrefix[] = "/_emulator/";

bool IsControlPath(const Request& req);
Reply HandleControl(State* state, ControlHost* host, const Request& req);

}  // namespace tpcsdk::emulator
