// What the benchmarks that talk to the emulator share.
#pragma once
#include <json/json.h>

#include <cstdlib>
#include <string>

#include "kit/emulator_client.h"
#include "support/utf.h"
#include "tpcsdk/ITetherdocServer.h"

namespace benchkit {

// The emulator of the run (TDOC_EMULATOR_URL's, otherwise one inside the program).
inline testkit::EmulatorClient* Emulator() {
  static testkit::EmulatorClient* emu = [] {
    std::string why;
    bool error = false;
    testkit::EmulatorClient* e = testkit::AcquireEmulator(&why, &error);
    if (!e) std::abort();
    return e;
  }();
  return emu;
}

// True when the emulator runs in another process, so that this program's heap and
// CPU are the module's alone.
inline bool EmulatorApart() { return std::getenv("TDOC_EMULATOR_URL") != nullptr; }

// The service refuses the same document twice; the upload benchmarks repeat one, so
// every POST of a document gets one fixed success reply. False when the rule is refused.
inline bool ReplyToEveryDocument(testkit::EmulatorClient* emu) {
  Json::Value rule;
  rule["method"] = "POST";
  rule["path"] = "/tdocapi/v1/documents";
  rule["status"] = 200;
  rule["body"] = R"({"ret":0,"msg":"ok"})";
  rule["times"] = -1;
  return emu->Script(rule) != 0;
}

// A wide text for the host's records, whatever the platform's wide type.
struct Wide {
  explicit Wide(const char* s) : text(tpcsdk::Utf8ToUtf16(s)) {}
  operator TDC_LPCWSTR() const { return reinterpret_cast<TDC_LPCWSTR>(text.c_str()); }
  std::u16string text;
};

}  // namespace benchkit
