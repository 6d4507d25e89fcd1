// What tests set up and read back: the request log, scripted replies, faults,
// the directory override and the connections held in a wait (stalls, delays).
// Everything here is guarded by one mutex; the server threads and the control
// API share one State.
#pragma once
#include <json/json.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "message_model.h"
#include "service_model.h"
#include "wire.h"

namespace tpcsdk::emulator {

// Which requests a rule applies to.
struct Match {
  std::string method;  // empty or "*": any method
  std::string path;    // percent-decoded path; a trailing '*' makes it a prefix; empty: any
  bool has_query = false;
  std::string query;   // raw query, compared exactly when has_query

  bool Matches(const Request& req) const;
};

struct ScriptRule {
  uint64_t id = 0;
  Match match;
  Reply reply;
  int64_t remaining = 1;  // -1: always
};

enum class FaultKind {
  kEmptyBody,          // given status, no body
  kContentLengthZero,  // the reply's status and headers, "Content-Length: 0", no body
  kChunks,             // body in `count` separately written pieces
  kZeroByte,           // a zero byte inserted into the body at `at`
  kMalformedJson,      // body replaced by broken JSON text
  kNonObject,          // body replaced by a JSON value that is not an object
  kStallBeforeHeaders,
  kStallMidBody,
  kResetBeforeHeaders,
  kResetMidBody,
  kCloseBeforeHeaders,
  kCloseMidBody,
  kDelay,
};
const char* FaultKindName(FaultKind kind);
bool ParseFaultKind(const std::string& name, FaultKind* kind);

struct FaultRule {
  uint64_t id = 0;
  Match match;
  FaultKind kind = FaultKind::kDelay;
  int status = -1;            // kEmptyBody: status to send (default 200)
  std::string framing = "length";  // kEmptyBody: "length", "close" or "chunked"
  int count = 3;              // kChunks
  bool chunked = false;       // kChunks and *MidBody: chunked transfer coding
  int gap_ms = 20;            // kChunks: pause between pieces
  bool step = false;          // kChunks: hold before each further piece until released
  int64_t at = -1;            // byte offset for kZeroByte and *MidBody; -1: the middle
  int ms = 0;                 // kDelay
  bool has_body = false;      // kMalformedJson, kNonObject: replacement body
  std::string body;
  int64_t remaining = 1;      // -1: always
};

// How the next directory documents differ from the built-in one.
struct DirectoryOverride {
  bool active = false;
  int status = 200;
  HeaderList headers;
  bool whole = false;  // serve `body` as the complete reply
  std::string body;
  std::vector<std::string> remove;  // keys left out of `url`
  std::vector<std::pair<std::string, std::string>> set;  // keys added or replaced
  std::vector<std::string> duplicate;  // keys written twice in `url`
  bool has_size = false;
  Json::Value size;  // replaces the computed count (any JSON value)
  bool has_tws = false;
  Json::Value tws;   // replaces `twsConfig`
  bool has_url = false;
  Json::Value url;   // replaces the whole `url` member
  std::vector<std::string> omit;  // top-level members left out: "url", "size", "twsConfig"
};

// A connection held by the emulator until something ends the hold.
struct Wait {
  enum Outcome { kPending = 0, kReleased = 1, kAborted = 2 };
  uint64_t id = 0;
  uint64_t seq = 0;  // the request's log number
  std::string method, target, phase;
  bool listed = false;  // stalls are listed and released by tests; delays are not
  int pipe_r = -1, pipe_w = -1;
  std::atomic<int> outcome{kPending};
  ~Wait();
  void Finish(Outcome o);
};

class State {
 public:
  State();

  int64_t NowMs() const;

  // Request log.
  void Log(Request* req);  // stamps seq and times, appends a copy
  Json::Value LogJson(uint64_t since) const;
  void ClearLog();
  // Waits until `count` logged requests match `match` (all when match is empty).
  size_t WaitForLog(const Match& match, size_t count, int timeout_ms) const;
  size_t LogSize() const;

  uint64_t AddScript(ScriptRule rule);
  uint64_t AddFault(FaultRule rule);
  bool TakeScript(const Request& req, Reply* reply);
  bool TakeFault(const Request& req, FaultRule* fault);
  Json::Value RulesJson() const;

  void SetDirectory(DirectoryOverride o);
  DirectoryOverride Directory() const;

  // The service model; it keeps its own lock.
  ServiceModel& model() { return model_; }
  // The messages polled for; they keep their own lock too.
  MessageModel& messages() { return messages_; }

  // Clears rules, log, directory override and the models, and aborts every wait.
  void Reset();
  // Aborts every wait now and every later one at once.
  void Shutdown();

  std::shared_ptr<Wait> BeginWait(const Request& req, const std::string& phase, bool listed);
  void EndWait(const std::shared_ptr<Wait>& w);
  int Release(uint64_t id);  // 0: all listed waits; returns how many were released
  size_t WaitForStalls(size_t count, int timeout_ms) const;
  Json::Value StallsJson() const;

 private:
  std::chrono::steady_clock::time_point start_;
  mutable std::mutex mu_;
  mutable std::condition_variable changed_;
  std::deque<Request> log_;
  uint64_t next_seq_ = 1;
  uint64_t next_id_ = 1;
  std::vector<ScriptRule> scripts_;
  std::vector<FaultRule> faults_;
  DirectoryOverride directory_;
  std::map<uint64_t, std::shared_ptr<Wait>> waits_;
  bool shutdown_ = false;
  ServiceModel model_;
  MessageModel messages_{&model_};
};

// The built-in directory document for a listener, with `o` applied.
Reply BuildDirectory(const std::string& base, const DirectoryOverride& o);
// The directory's keys and the part of each URL after the base.
const std::vector<std::pair<std::string, std::string>>& DirectoryEntries();

}  // namespace tpcsdk::emulator
