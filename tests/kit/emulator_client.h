// Client of tdoc-emulator's control API, for the test programs of both
// platforms. It speaks plain HTTP/1.1 over its own sockets, so a Windows test
// program under wine can drive the native emulator over loopback.
//
// A test gets its emulator with AcquireEmulator(): the one named by
// TDOC_EMULATOR_URL when that is set, otherwise (natively) one started inside
// the test program on a free port. Either way the emulator is reset first.
#pragma once
#include <gtest/gtest.h>
#include <json/json.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace testkit {

// One request from the emulator's log.
struct LoggedRequest {
  uint64_t seq = 0;
  std::string method;
  std::string target;  // raw, as on the wire
  std::string path;    // percent-decoded path
  std::string query;   // raw query
  bool has_query = false;
  std::vector<std::pair<std::string, std::string>> headers;  // in order
  std::string body;    // exact bytes
  bool tls = false;
  int64_t time_ms = 0;  // since the emulator started
  std::string listener;  // base URL of the listener that took it

  // First header of that name (case-insensitive); empty when absent.
  std::string Header(const std::string& name) const;
  bool HasHeader(const std::string& name) const;
};

// The outcome of one plain HTTP exchange.
struct HttpResult {
  int status = 0;     // 0: no reply (connection failed, timed out, garbled)
  std::string head;   // status line and headers
  std::string body;
  std::string error;  // why status is 0
};

// Sends one request on a fresh connection to `base_url` ("http://host:port")
// and reads the reply to its end. `target` is sent exactly as given.
HttpResult HttpExchange(const std::string& base_url, const std::string& method,
                        const std::string& target, const std::string& body = "",
                        int timeout_ms = 30000);

// A scripted reply (for EmulatorClient::Script): `times` replies of `status` with the
// exact `body` text to `method` on `path` (-1: always).
Json::Value BodyRule(const std::string& method, const std::string& path, int status,
                     const std::string& body, int times = 1);

class EmulatorClient {
 public:
  explicit EmulatorClient(std::string base_url);

  const std::string& base_url() const { return base_; }
  // Why the last failing call failed.
  std::string last_error() const { return last_error_; }

  // One control call: `endpoint` is the part after "/_emulator/". True when the
  // emulator answered 200 with a JSON object, which goes to `out`.
  bool Call(const std::string& method, const std::string& endpoint,
            const Json::Value& in = Json::Value(Json::objectValue),
            Json::Value* out = nullptr, int timeout_ms = 30000);

  bool Reset();
  // Registers a scripted reply or a fault (fields as in the emulator's README);
  // the rule's id, or 0 on failure.
  uint64_t Script(const Json::Value& rule);
  uint64_t Fault(const Json::Value& rule);
  // Shorthand: `times` replies of `status` with `json` as the body (-1: always).
  uint64_t ScriptJson(const std::string& method, const std::string& path, const Json::Value& json,
                      int status = 200, int times = -1);
  // Shorthand: one fault of `kind` on method and path, with extra fields.
  uint64_t FaultOnce(const std::string& method, const std::string& path, const std::string& kind,
                     Json::Value extra = Json::Value(Json::objectValue));

  bool SetDirectory(const Json::Value& change);
  bool ClearDirectory();

  // The log from `since` (a seq) on; empty when the call failed.
  std::vector<LoggedRequest> Requests(uint64_t since = 0);
  // Only the requests whose decoded path is `path`.
  std::vector<LoggedRequest> RequestsTo(const std::string& path);
  bool ClearLog();
  // Waits until `count` logged requests match (method may be empty, path may
  // end in '*'); true when they did within the bound.
  bool WaitForRequests(size_t count, int timeout_ms = 10000, const std::string& path = "",
                       const std::string& method = "");

  // Waits until `count` connections are held by stall faults.
  bool WaitForStalls(size_t count, int timeout_ms = 10000);
  // Lets held connections go on; 0 releases all. Returns how many were released.
  int Release(uint64_t id = 0);

  // The service model. Seed adds or merges records through POST
  // /_emulator/<what> ("users", "documents", "versions", "tickets",
  // "third-users", "agreement", ...): one record, or {"<what>": [...]}.
  // Inspect reads GET /_emulator/<what>; a null value when the call failed.
  bool Seed(const std::string& what, const Json::Value& records);
  Json::Value Inspect(const std::string& what);
  // A user with these members (cState 1 when `online`).
  bool SeedUser(const std::string& cUserID, const std::string& token, const std::string& email,
                bool online = false);

  // The messages handed out by polling. QueueMessage queues one for `token` and
  // `type` (extra members such as "cAppID" or "cDocID" from `extra`) and gives
  // back its record, whose "message" is what a round carries (with the "_id"
  // the emulator gave it where it had none); a null value on failure.
  Json::Value QueueMessage(const std::string& token, int type, const Json::Value& message,
                           Json::Value extra = Json::Value(Json::objectValue));
  // Waits until `count` posted messages (of `token` when not empty) are
  // "delivered" or "acknowledged"; true when they were within the bound.
  bool WaitForMessages(size_t count, const std::string& state = "acknowledged",
                       const std::string& token = "", int timeout_ms = 10000);
  // Puts a control element {"nextPollingTime": seconds} into the next round.
  bool QueueNextPollingTime(const Json::Value& seconds);

  // Base URL of an extra TLS listener: "valid", "expired" or "wrong_name".
  // Empty on failure.
  std::string OpenTlsListener(const std::string& kind);

 private:
  std::string base_;
  std::string last_error_;
};

// The emulator for this test, reset and ready; or nullptr with the reason in
// `why_not`. `is_error` tells a broken set-up (an emulator named but not
// answering, or one that cannot start) from a plain absence (on Windows
// without TDOC_EMULATOR_URL).
EmulatorClient* AcquireEmulator(std::string* why_not, bool* is_error);

}  // namespace testkit

// Declares `var` as the test's EmulatorClient*; skips the test when no emulator
// is available, and fails it when the emulator is there but broken.
#define TESTKIT_EMULATOR_OR_SKIP(var)                                                \
  std::string var##_why_not;                                                         \
  bool var##_is_error = false;                                                       \
  ::testkit::EmulatorClient* var =                                                   \
      ::testkit::AcquireEmulator(&var##_why_not, &var##_is_error);                   \
  if (var == nullptr && var##_is_error) GTEST_FAIL() << var##_why_not;               \
  if (var == nullptr) GTEST_SKIP() << var##_why_not
