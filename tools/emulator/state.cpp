#include "state.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>

namespace tpcsdk::emulator {
namespace {

const struct {
  FaultKind kind;
  const char* name;
} kFaultNames[] = {
    {FaultKind::kEmptyBody, "empty_body"},
    {FaultKind::kContentLengthZero, "content_length_zero"},
    {FaultKind::kChunks, "chunks"},
    {FaultKind::kZeroByte, "zero_byte"},
    {FaultKind::kMalformedJson, "malformed_json"},
    {FaultKind::kNonObject, "non_object"},
    {FaultKind::kStallBeforeHeaders, "stall_before_headers"},
    {FaultKind::kStallMidBody, "stall_mid_body"},
    {FaultKind::kResetBeforeHeaders, "reset_before_headers"},
    {FaultKind::kResetMidBody, "reset_mid_body"},
    {FaultKind::kCloseBeforeHeaders, "close_before_headers"},
    {FaultKind::kCloseMidBody, "close_mid_body"},
    {FaultKind::kDelay, "delay"},
};

Json::Value MatchJson(const Match& m) {
  Json::Value v(Json::objectValue);
  v["method"] = m.method;
  v["path"] = m.path;
  if (m.has_query) v["query"] = m.query;
  return v;
}

}  // namespace

bool Match::Matches(const Request& req) const {
  if (!method.empty() && method != "*" && method != req.method) return false;
  if (!path.empty()) {
    std::string p = req.DecodedPath();
    if (path.back() == '*') {
      if (p.compare(0, path.size() - 1, path, 0, path.size() - 1) != 0) return false;
    } else if (p != path) {
      return false;
    }
  }
  if (has_query && (!req.has_query || req.query != query)) return false;
  return true;
}

const char* FaultKindName(FaultKind kind) {
  for (const auto& f : kFaultNames) {
    if (f.kind == kind) return f.name;
  }
  return "?";
}

bool ParseFaultKind(const std::string& name, FaultKind* kind) {
  for (const auto& f : kFaultNames) {
    if (name == f.name) {
      *kind = f.kind;
      return true;
    }
  }
  return false;
}

Wait::~Wait() {
  if (pipe_r >= 0) close(pipe_r);
  if (pipe_w >= 0) close(pipe_w);
}

void Wait::Finish(Outcome o) {
  int expected = kPending;
  if (outcome.compare_exchange_strong(expected, o) && pipe_w >= 0) {
    char c = 1;
    ssize_t n = write(pipe_w, &c, 1);
    (void)n;  // the pipe is empty and non-blocking; a lost byte cannot happen
  }
}

State::State() : start_(std::chrono::steady_clock::now()) {}

int64_t State::NowMs() const {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                               start_)
      .count();
}

void State::Log(Request* req) {
  std::lock_guard<std::mutex> lock(mu_);
  req->seq = next_seq_++;
  log_.push_back(*req);
  changed_.notify_all();
}

Json::Value State::LogJson(uint64_t since) const {
  std::lock_guard<std::mutex> lock(mu_);
  Json::Value out(Json::objectValue);
  Json::Value& list = out["requests"] = Json::Value(Json::arrayValue);
  for (const Request& r : log_) {
    if (r.seq <= since) continue;
    Json::Value e(Json::objectValue);
    e["seq"] = Json::UInt64(r.seq);
    e["method"] = SanitizeUtf8(r.method);
    e["target"] = SanitizeUtf8(r.target);
    e["target_b64"] = Base64Encode(r.target);
    e["path"] = SanitizeUtf8(r.DecodedPath());
    e["query"] = SanitizeUtf8(r.query);
    e["has_query"] = r.has_query;
    e["version"] = SanitizeUtf8(r.version);
    Json::Value& hs = e["headers"] = Json::Value(Json::arrayValue);
    for (const auto& h : r.headers) {
      Json::Value pair(Json::arrayValue);
      pair.append(SanitizeUtf8(h.first));
      pair.append(SanitizeUtf8(h.second));
      hs.append(pair);
    }
    if (IsCleanUtf8(r.body)) e["body"] = r.body;
    e["body_b64"] = Base64Encode(r.body);
    e["body_size"] = Json::UInt64(r.body.size());
    e["time_ms"] = Json::Int64(r.time_ms);
    e["unix_ms"] = Json::Int64(r.unix_ms);
    e["tls"] = r.tls;
    e["listener"] = r.listener;
    e["peer"] = r.peer;
    list.append(e);
  }
  out["next_seq"] = Json::UInt64(next_seq_);
  return out;
}

void State::ClearLog() {
  std::lock_guard<std::mutex> lock(mu_);
  log_.clear();
}

size_t State::LogSize() const {
  std::lock_guard<std::mutex> lock(mu_);
  return log_.size();
}

size_t State::WaitForLog(const Match& match, size_t count, int timeout_ms) const {
  std::unique_lock<std::mutex> lock(mu_);
  size_t n = 0;
  auto enough = [&] {
    n = static_cast<size_t>(std::count_if(log_.begin(), log_.end(),
                                          [&](const Request& r) { return match.Matches(r); }));
    return n >= count || shutdown_;
  };
  changed_.wait_for(lock, std::chrono::milliseconds(timeout_ms), enough);
  return n;
}

uint64_t State::AddScript(ScriptRule rule) {
  std::lock_guard<std::mutex> lock(mu_);
  rule.id = next_id_++;
  scripts_.push_back(std::move(rule));
  return scripts_.back().id;
}

uint64_t State::AddFault(FaultRule rule) {
  std::lock_guard<std::mutex> lock(mu_);
  rule.id = next_id_++;
  faults_.push_back(std::move(rule));
  return faults_.back().id;
}

// The first registered rule that matches wins; a rule used up is dropped.
template <typename Rule>
static bool TakeRule(std::vector<Rule>* rules, const Request& req, Rule* out) {
  for (auto it = rules->begin(); it != rules->end(); ++it) {
    if (!it->match.Matches(req)) continue;
    *out = *it;
    if (it->remaining > 0 && --it->remaining == 0) rules->erase(it);
    return true;
  }
  return false;
}

bool State::TakeScript(const Request& req, Reply* reply) {
  std::lock_guard<std::mutex> lock(mu_);
  ScriptRule rule;
  if (!TakeRule(&scripts_, req, &rule)) return false;
  *reply = rule.reply;
  return true;
}

bool State::TakeFault(const Request& req, FaultRule* fault) {
  std::lock_guard<std::mutex> lock(mu_);
  return TakeRule(&faults_, req, fault);
}

Json::Value State::RulesJson() const {
  std::lock_guard<std::mutex> lock(mu_);
  Json::Value out(Json::objectValue);
  Json::Value& s = out["scripts"] = Json::Value(Json::arrayValue);
  for (const auto& r : scripts_) {
    Json::Value e = MatchJson(r.match);
    e["id"] = Json::UInt64(r.id);
    e["status"] = r.reply.status;
    e["remaining"] = Json::Int64(r.remaining);
    s.append(e);
  }
  Json::Value& f = out["faults"] = Json::Value(Json::arrayValue);
  for (const auto& r : faults_) {
    Json::Value e = MatchJson(r.match);
    e["id"] = Json::UInt64(r.id);
    e["kind"] = FaultKindName(r.kind);
    e["remaining"] = Json::Int64(r.remaining);
    f.append(e);
  }
  out["directory_override"] = directory_.active;
  return out;
}

void State::SetDirectory(DirectoryOverride o) {
  std::lock_guard<std::mutex> lock(mu_);
  directory_ = std::move(o);
}

DirectoryOverride State::Directory() const {
  std::lock_guard<std::mutex> lock(mu_);
  return directory_;
}

void State::Reset() {
  model_.Reset();
  messages_.Reset();
  std::lock_guard<std::mutex> lock(mu_);
  log_.clear();
  scripts_.clear();
  faults_.clear();
  directory_ = DirectoryOverride();
  for (auto& w : waits_) w.second->Finish(Wait::kAborted);
  changed_.notify_all();
}

void State::Shutdown() {
  std::lock_guard<std::mutex> lock(mu_);
  shutdown_ = true;
  for (auto& w : waits_) w.second->Finish(Wait::kAborted);
  changed_.notify_all();
  messages_.Shutdown();
}

std::shared_ptr<Wait> State::BeginWait(const Request& req, const std::string& phase,
                                       bool listed) {
  auto w = std::make_shared<Wait>();
  int fds[2];
  if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) == 0) {
    w->pipe_r = fds[0];
    w->pipe_w = fds[1];
  }
  w->seq = req.seq;
  w->method = req.method;
  w->target = req.target;
  w->phase = phase;
  w->listed = listed;
  std::lock_guard<std::mutex> lock(mu_);
  w->id = next_id_++;
  if (shutdown_ || w->pipe_r < 0) w->Finish(Wait::kAborted);
  waits_[w->id] = w;
  changed_.notify_all();
  return w;
}

void State::EndWait(const std::shared_ptr<Wait>& w) {
  std::lock_guard<std::mutex> lock(mu_);
  waits_.erase(w->id);
  changed_.notify_all();
}

int State::Release(uint64_t id) {
  std::lock_guard<std::mutex> lock(mu_);
  int n = 0;
  for (auto& e : waits_) {
    Wait& w = *e.second;
    if (!w.listed || (id != 0 && w.id != id)) continue;
    if (w.outcome.load() == Wait::kPending) {
      w.Finish(Wait::kReleased);
      ++n;
    }
  }
  return n;
}

size_t State::WaitForStalls(size_t count, int timeout_ms) const {
  std::unique_lock<std::mutex> lock(mu_);
  size_t n = 0;
  auto enough = [&] {
    n = 0;
    for (const auto& e : waits_) {
      if (e.second->listed && e.second->outcome.load() == Wait::kPending) ++n;
    }
    return n >= count || shutdown_;
  };
  changed_.wait_for(lock, std::chrono::milliseconds(timeout_ms), enough);
  return n;
}

Json::Value State::StallsJson() const {
  std::lock_guard<std::mutex> lock(mu_);
  Json::Value out(Json::objectValue);
  Json::Value& list = out["stalls"] = Json::Value(Json::arrayValue);
  for (const auto& e : waits_) {
    const Wait& w = *e.second;
    if (!w.listed || w.outcome.load() != Wait::kPending) continue;
    Json::Value s(Json::objectValue);
    s["id"] = Json::UInt64(w.id);
    s["seq"] = Json::UInt64(w.seq);
    s["method"] = SanitizeUtf8(w.method);
    s["target"] = SanitizeUtf8(w.target);
    s["phase"] = w.phase;
    list.append(s);
  }
  return out;
}

}  // namespace tpcsdk::emulator
