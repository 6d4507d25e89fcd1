#include "control.h"

#include <algorithm>
#include <cstdlib>

namespace tpcsdk::emulator {
namespace {

struct BadInput {
  std::string message;
};

Reply JsonReply(int status, const Json::Value& v) {
  Json::StreamWriterBuilder b;
  b["indentation"] = "";
  Reply r;
  r.status = status;
  r.headers.emplace_back("Content-Type", "application/json");
  r.body = Json::writeString(b, v) + "\n";
  return r;
}

Reply Error(int status, const std::string& message) {
  Json::Value v(Json::objectValue);
  v["error"] = message;
  return JsonReply(status, v);
}

Reply Ok() {
  Json::Value v(Json::objectValue);
  v["ok"] = true;
  return JsonReply(200, v);
}

std::string GetString(const Json::Value& in, const char* name, const std::string& def = "") {
  if (!in.isMember(name)) return def;
  if (!in[name].isString()) throw BadInput{std::string("'") + name + "' must be a string"};
  return in[name].asString();
}

int64_t GetInt(const Json::Value& in, const char* name, int64_t def, int64_t lo, int64_t hi) {
  if (!in.isMember(name)) return def;
  const Json::Value& v = in[name];
  if (!v.isIntegral() || (v.isUInt64() && v.asUInt64() > static_cast<uint64_t>(INT64_MAX)))
    throw BadInput{std::string("'") + name + "' must be an integer"};
  int64_t n = v.asInt64();
  if (n < lo || n > hi)
    throw BadInput{std::string("'") + name + "' out of range [" + std::to_string(lo) + ", " +
                   std::to_string(hi) + "]"};
  return n;
}

bool GetBool(const Json::Value& in, const char* name, bool def) {
  if (!in.isMember(name)) return def;
  if (!in[name].isBool()) throw BadInput{std::string("'") + name + "' must be true or false"};
  return in[name].asBool();
}

std::vector<std::string> GetStrings(const Json::Value& in, const char* name) {
  std::vector<std::string> out;
  if (!in.isMember(name)) return out;
  const Json::Value& v = in[name];
  if (!v.isArray()) throw BadInput{std::string("'") + name + "' must be an array of strings"};
  for (const auto& e : v) {
    if (!e.isString()) throw BadInput{std::string("'") + name + "' must be an array of strings"};
    out.push_back(e.asString());
  }
  return out;
}

Match GetMatch(const Json::Value& in) {
  Match m;
  m.method = GetString(in, "method");
  m.path = GetString(in, "path");
  if (in.isMember("query")) {
    m.has_query = true;
    m.query = GetString(in, "query");
  }
  return m;
}

// "times": a count, or -1 / "always" for no limit. Default: once.
int64_t GetTimes(const Json::Value& in) {
  if (in.isMember("times") && in["times"].isString()) {
    if (in["times"].asString() == "always") return -1;
    throw BadInput{"'times' must be a positive count, -1 or \"always\""};
  }
  int64_t t = GetInt(in, "times", 1, -1, INT32_MAX);
  if (t == 0) throw BadInput{"'times' must be a positive count, -1 or \"always\""};
  return t;
}

// The body from "body" (text), "body_b64" (any bytes) or "json" (a value
// written compactly). False when none is given.
bool GetBody(const Json::Value& in, std::string* body) {
  if (in.isMember("body_b64")) {
    if (!Base64Decode(GetString(in, "body_b64"), body)) throw BadInput{"'body_b64' is not base64"};
    return true;
  }
  if (in.isMember("json")) {
    Json::StreamWriterBuilder b;
    b["indentation"] = "";
    b["emitUTF8"] = true;
    *body = Json::writeString(b, in["json"]);
    return true;
  }
  if (in.isMember("body")) {
    *body = GetString(in, "body");
    return true;
  }
  return false;
}

// "headers": {"Name": "value", ...} or [["Name", "value"], ...] (keeps order
// and allows repeats).
HeaderList GetHeaders(const Json::Value& in) {
  HeaderList out;
  if (!in.isMember("headers")) return out;
  const Json::Value& h = in["headers"];
  if (h.isObject()) {
    for (const auto& name : h.getMemberNames()) {
      if (!h[name].isString()) throw BadInput{"header values must be strings"};
      out.emplace_back(name, h[name].asString());
    }
  } else if (h.isArray()) {
    for (const auto& p : h) {
      if (!p.isArray() || p.size() != 2 || !p[0].isString() || !p[1].isString())
        throw BadInput{"'headers' entries must be [name, value] pairs of strings"};
      out.emplace_back(p[0].asString(), p[1].asString());
    }
  } else {
    throw BadInput{"'headers' must be an object or an array of pairs"};
  }
  for (const auto& p : out) {
    if (p.first.empty() || p.first.find_first_of(":\r\n") != std::string::npos ||
        p.second.find_first_of("\r\n") != std::string::npos)
      throw BadInput{"header names and values may not hold line breaks"};
  }
  return out;
}

Reply AddScript(State* state, const Json::Value& in) {
  ScriptRule rule;
  rule.match = GetMatch(in);
  rule.remaining = GetTimes(in);
  rule.reply.status = static_cast<int>(GetInt(in, "status", 200, 100, 999));
  rule.reply.headers = GetHeaders(in);
  if (!GetBody(in, &rule.reply.body)) rule.reply.body.clear();
  bool has_type = std::any_of(rule.reply.headers.begin(), rule.reply.headers.end(),
                              [](const auto& h) { return EqualsNoCase(h.first, "Content-Type"); });
  if (!has_type && !GetBool(in, "no_content_type", false))
    rule.reply.headers.emplace_back("Content-Type", "application/json");
  Json::Value out(Json::objectValue);
  out["id"] = Json::UInt64(state->AddScript(std::move(rule)));
  return JsonReply(200, out);
}

Reply AddFault(State* state, const Json::Value& in) {
  FaultRule f;
  f.match = GetMatch(in);
  f.remaining = GetTimes(in);
  std::string kind = GetString(in, "kind");
  if (!ParseFaultKind(kind, &f.kind)) throw BadInput{"unknown fault kind '" + kind + "'"};
  f.status = static_cast<int>(GetInt(in, "status", -1, -1, 999));
  f.framing = GetString(in, "framing", "length");
  if (f.framing != "length" && f.framing != "close" && f.framing != "chunked")
    throw BadInput{"'framing' must be \"length\", \"close\" or \"chunked\""};
  f.count = static_cast<int>(GetInt(in, "count", 3, 1, 1 << 20));
  f.chunked = GetBool(in, "chunked", false);
  f.gap_ms = static_cast<int>(GetInt(in, "gap_ms", 20, 0, 600000));
  f.step = GetBool(in, "step", false);
  f.at = GetInt(in, "at", -1, -1, INT64_MAX);
  f.ms = static_cast<int>(GetInt(in, "ms", 0, 0, 600000));
  f.has_body = GetBody(in, &f.body);
  Json::Value out(Json::objectValue);
  out["id"] = Json::UInt64(state->AddFault(std::move(f)));
  return JsonReply(200, out);
}

Reply SetDirectory(State* state, const Json::Value& in) {
  DirectoryOverride o;
  o.active = true;
  o.status = static_cast<int>(GetInt(in, "status", 200, 100, 999));
  o.headers = GetHeaders(in);
  o.whole = GetBody(in, &o.body);
  o.remove = GetStrings(in, "remove");
  o.duplicate = GetStrings(in, "duplicate");
  o.omit = GetStrings(in, "omit");
  if (in.isMember("set")) {
    const Json::Value& s = in["set"];
    if (!s.isObject()) throw BadInput{"'set' must be an object of key: URL"};
    for (const auto& name : s.getMemberNames()) {
      if (!s[name].isString()) throw BadInput{"'set' values must be strings"};
      o.set.emplace_back(name, s[name].asString());
    }
  }
  if (in.isMember("size")) {
    o.has_size = true;
    o.size = in["size"];
  }
  if (in.isMember("twsConfig")) {
    o.has_tws = true;
    o.tws = in["twsConfig"];
  }
  if (in.isMember("url")) {
    o.has_url = true;
    o.url = in["url"];
  }
  state->SetDirectory(std::move(o));
  return Ok();
}

int TimeoutMs(const Json::Value& in) {
  return static_cast<int>(GetInt(in, "timeout_ms", 5000, 0, 300000));
}

Reply Dispatch(State* state, ControlHost* host, const Request& req, const Json::Value& in) {
  const std::string what = req.DecodedPath().substr(sizeof(kControlPrefix) - 1);
  const std::string& m = req.method;
  if (what == "info" && m == "GET") {
    Json::Value out(Json::objectValue);
    out["base"] = req.listener;
    out["listeners"] = host->ListenersJson();
    out["requests"] = Json::UInt64(state->LogSize());
    Json::Value keys(Json::arrayValue);
    for (const auto& e : DirectoryEntries()) keys.append(e.first);
    out["directory_keys"] = keys;
    return JsonReply(200, out);
  }
  if (what == "shutdown" && m == "POST") {
    if (!host->RequestShutdown()) return Error(403, "this emulator runs inside another program and is not ended from outside");
    return Ok();
  }
  if (what == "reset" && m == "POST") {
    state->Reset();
    return Ok();
  }
  if (what == "log" && m == "GET") {
    std::string since = QueryParam(req, "since");
    return JsonReply(200, state->LogJson(std::strtoull(since.c_str(), nullptr, 10)));
  }
  if ((what == "log/clear" && m == "POST") || (what == "log" && m == "DELETE")) {
    state->ClearLog();
    return Ok();
  }
  if (what == "log/wait" && m == "POST") {
    size_t want = static_cast<size_t>(GetInt(in, "count", 1, 0, INT32_MAX));
    size_t n = state->WaitForLog(GetMatch(in), want, TimeoutMs(in));
    Json::Value out(Json::objectValue);
    out["ok"] = n >= want;
    out["count"] = Json::UInt64(n);
    return JsonReply(200, out);
  }
  if (what == "script" && m == "POST") return AddScript(state, in);
  if (what == "fault" && m == "POST") return AddFault(state, in);
  if (what == "rules" && m == "GET") return JsonReply(200, state->RulesJson());
  if (what == "directory" && m == "POST") return SetDirectory(state, in);
  if (what == "directory" && m == "DELETE") {
    state->SetDirectory(DirectoryOverride());
    return Ok();
  }
  if (what == "stalls" && m == "GET") return JsonReply(200, state->StallsJson());
  if (what == "stalls/wait" && m == "POST") {
    size_t want = static_cast<size_t>(GetInt(in, "count", 1, 0, INT32_MAX));
    size_t n = state->WaitForStalls(want, TimeoutMs(in));
    Json::Value out(Json::objectValue);
    out["ok"] = n >= want;
    out["count"] = Json::UInt64(n);
    return JsonReply(200, out);
  }
  if (what == "release" && m == "POST") {
    Json::Value out(Json::objectValue);
    out["released"] = state->Release(static_cast<uint64_t>(GetInt(in, "id", 0, 0, INT64_MAX)));
    return JsonReply(200, out);
  }
  if (what == "tls-listener" && m == "POST") {
    CertKind kind;
    std::string name = GetString(in, "kind", "valid");
    if (!ParseCertKind(name, &kind))
      throw BadInput{"'kind' must be \"valid\", \"expired\" or \"wrong_name\""};
    std::string base, error;
    if (!host->OpenTlsListener(kind, &base, &error)) return Error(500, error);
    Json::Value out(Json::objectValue);
    out["base"] = base;
    out["kind"] = name;
    return JsonReply(200, out);
  }
  Json::Value out;
  if (state->model().Control(m, what, in, &out) || state->messages().Control(m, what, in, &out))
    return JsonReply(200, out);
  return Error(404, "no control endpoint " + m + " /_emulator/" + what);
}

}  // namespace

bool IsControlPath(const Request& req) {
  return req.path.compare(0, sizeof(kControlPrefix) - 1, kControlPrefix) == 0;
}

Reply HandleControl(State* state, ControlHost* host, const Request& req) {
  Json::Value in(Json::objectValue);
  if (!req.body.empty()) {
    std::string errors;
    if (!ParseJson(req.body, &in, &errors))
      return Error(400, "request body is not JSON: " + errors);
    if (!in.isObject()) return Error(400, "request body must be a JSON object");
  }
  try {
    return Dispatch(state, host, req, in);
  } catch (const BadInput& e) {
    return Error(400, e.message);
  } catch (const std::exception& e) {
    return Error(400, e.what());
  }
}

}  // namespace tpcsdk::emulator
