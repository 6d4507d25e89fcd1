#include "kit/emulator_client.h"

#ifdef _WIN32
#include <winsock2.h>
#include <ws2tcpip.h>
#else
#include <netdb.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>
#endif

#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>

#ifdef TPCSDK_TESTKIT_INPROCESS_EMULATOR
#include <openssl/ssl.h>

#include "emulator/emulator.h"
#endif

#include "support/text.h"

namespace testkit {
namespace {

#ifdef _WIN32
using Socket = SOCKET;
const Socket kNoSocket = INVALID_SOCKET;
void CloseSocket(Socket s) { closesocket(s); }
bool NetworkReady() {
  static const bool ready = [] {
    WSADATA data;
    return WSAStartup(MAKEWORD(2, 2), &data) == 0;
  }();
  return ready;
}
void SetTimeout(Socket s, int ms) {
  DWORD t = static_cast<DWORD>(ms);
  setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&t), sizeof(t));
  setsockopt(s, SOL_SOCKET, SO_SNDTIMEO, reinterpret_cast<const char*>(&t), sizeof(t));
}
#else
using Socket = int;
const Socket kNoSocket = -1;
void CloseSocket(Socket s) { close(s); }
bool NetworkReady() { return true; }
void SetTimeout(Socket s, int ms) {
  timeval t{ms / 1000, (ms % 1000) * 1000};
  setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &t, sizeof(t));
  setsockopt(s, SOL_SOCKET, SO_SNDTIMEO, &t, sizeof(t));
}
#endif

using tpcsdk::EqualsNoCase;

std::string Base64Decode(const std::string& text) {
  static const char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  unsigned acc = 0;
  int bits = 0;
  for (char c : text) {
    const char* p = c != '\0' ? std::strchr(kAlphabet, c) : nullptr;
    if (p == nullptr) continue;  // padding
    acc = (acc << 6) | static_cast<unsigned>(p - kAlphabet);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out += static_cast<char>((acc >> bits) & 0xFF);
    }
  }
  return out;
}

// Splits "http://host:port[/...]" into host and port.
bool SplitBase(const std::string& base, std::string* host, std::string* port) {
  const std::string scheme = "http://";
  if (base.compare(0, scheme.size(), scheme) != 0) return false;
  std::string rest = base.substr(scheme.size());
  rest = rest.substr(0, rest.find('/'));
  size_t colon = rest.rfind(':');
  if (colon == std::string::npos || (rest[0] == '[' && rest.find(']') > colon)) {
    *host = rest;
    *port = "80";
  } else {
    *host = rest.substr(0, colon);
    *port = rest.substr(colon + 1);
  }
  if (host->size() > 2 && (*host)[0] == '[') *host = host->substr(1, host->size() - 2);
  return !host->empty() && !port->empty();
}

Socket Connect(const std::string& host, const std::string& port, std::string* error) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* res = nullptr;
  if (getaddrinfo(host.c_str(), port.c_str(), &hints, &res) != 0 || res == nullptr) {
    *error = "cannot resolve " + host;
    return kNoSocket;
  }
  Socket s = kNoSocket;
  for (addrinfo* a = res; a != nullptr; a = a->ai_next) {
    s = socket(a->ai_family, a->ai_socktype, a->ai_protocol);
    if (s == kNoSocket) continue;
    if (connect(s, a->ai_addr, static_cast<int>(a->ai_addrlen)) == 0) break;
    CloseSocket(s);
    s = kNoSocket;
  }
  freeaddrinfo(res);
  if (s == kNoSocket) *error = "cannot connect to " + host + ":" + port;
  return s;
}

// The value of Content-Length in a reply head, or -1.
long long ContentLength(const std::string& head) {
  size_t pos = 0;
  while ((pos = head.find('\n', pos)) != std::string::npos) {
    ++pos;
    size_t colon = head.find(':', pos);
    size_t eol = head.find('\n', pos);
    if (colon == std::string::npos || colon > eol) continue;
    if (EqualsNoCase(head.substr(pos, colon - pos), "Content-Length"))
      return std::atoll(head.c_str() + colon + 1);
  }
  return -1;
}

LoggedRequest ToLoggedRequest(const Json::Value& e) {
  LoggedRequest r;
  r.seq = e["seq"].asUInt64();
  r.method = e["method"].asString();
  r.target = Base64Decode(e["target_b64"].asString());
  r.path = e["path"].asString();
  r.query = e["query"].asString();
  r.has_query = e["has_query"].asBool();
  for (const auto& h : e["headers"]) r.headers.emplace_back(h[0].asString(), h[1].asString());
  r.body = Base64Decode(e["body_b64"].asString());
  r.tls = e["tls"].asBool();
  r.time_ms = e["time_ms"].asInt64();
  r.listener = e["listener"].asString();
  return r;
}

}  // namespace

std::string LoggedRequest::Header(const std::string& name) const {
  for (const auto& h : headers) {
    if (EqualsNoCase(h.first, name)) return h.second;
  }
  return "";
}

bool LoggedRequest::HasHeader(const std::string& name) const {
  for (const auto& h : headers) {
    if (EqualsNoCase(h.first, name)) return true;
  }
  return false;
}

HttpResult HttpExchange(const std::string& base_url, const std::string& method,
                        const std::string& target, const std::string& body, int timeout_ms) {
  HttpResult result;
  std::string host, port;
  if (!NetworkReady()) {
    result.error = "sockets unavailable";
    return result;
  }
  if (!SplitBase(base_url, &host, &port)) {
    result.error = "not a plain http URL: " + base_url;
    return result;
  }
  Socket s = Connect(host, port, &result.error);
  if (s == kNoSocket) return result;
  SetTimeout(s, timeout_ms);
  std::string request = method + " " + target + " HTTP/1.1\r\nHost: " + host + ":" + port +
                        "\r\nContent-Type: application/json\r\nContent-Length: " +
                        std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
  size_t sent = 0;
  while (sent < request.size()) {
    int n = send(s, request.data() + sent, static_cast<int>(request.size() - sent), 0);
    if (n <= 0) {
      result.error = "send failed";
      CloseSocket(s);
      return result;
    }
    sent += static_cast<size_t>(n);
  }
  std::string in;
  char buf[8192];
  long long want = -1;
  size_t head_end = std::string::npos;
  for (;;) {
    int n = recv(s, buf, sizeof(buf), 0);
    if (n <= 0) break;
    in.append(buf, static_cast<size_t>(n));
    if (head_end == std::string::npos) {
      head_end = in.find("\r\n\r\n");
      if (head_end != std::string::npos) want = ContentLength(in.substr(0, head_end + 2));
    }
    if (head_end != std::string::npos && want >= 0 &&
        in.size() >= head_end + 4 + static_cast<size_t>(want))
      break;
  }
  CloseSocket(s);
  if (head_end == std::string::npos || in.compare(0, 9, "HTTP/1.1 ") != 0) {
    result.error = in.empty() ? "no reply" : "garbled reply";
    return result;
  }
  result.head = in.substr(0, head_end + 2);
  result.body = in.substr(head_end + 4);
  if (want >= 0 && result.body.size() > static_cast<size_t>(want)) result.body.resize(want);
  result.status = std::atoi(in.c_str() + 9);
  return result;
}

EmulatorClient::EmulatorClient(std::string base_url) : base_(std::move(base_url)) {
  while (!base_.empty() && base_.back() == '/') base_.pop_back();
}

bool EmulatorClient::Call(const std::string& method, const std::string& endpoint,
                          const Json::Value& in, Json::Value* out, int timeout_ms) {
  Json::StreamWriterBuilder w;
  w["indentation"] = "";
  std::string body = method == "GET" ? "" : Json::writeString(w, in);
  HttpResult r = HttpExchange(base_, method, "/_emulator/" + endpoint, body, timeout_ms);
  if (r.status == 0) {
    last_error_ = endpoint + ": " + r.error;
    return false;
  }
  Json::Value v;
  Json::CharReaderBuilder rb;
  std::unique_ptr<Json::CharReader> reader(rb.newCharReader());
  std::string errors;
  if (!reader->parse(r.body.data(), r.body.data() + r.body.size(), &v, &errors) ||
      !v.isObject()) {
    last_error_ = endpoint + ": reply is not a JSON object";
    return false;
  }
  if (r.status != 200) {
    last_error_ = endpoint + ": HTTP " + std::to_string(r.status) + ": " + v["error"].asString();
    return false;
  }
  if (out != nullptr) *out = v;
  return true;
}

bool EmulatorClient::Reset() { return Call("POST", "reset"); }

uint64_t EmulatorClient::Script(const Json::Value& rule) {
  Json::Value out;
  return Call("POST", "script", rule, &out) ? out["id"].asUInt64() : 0;
}

uint64_t EmulatorClient::Fault(const Json::Value& rule) {
  Json::Value out;
  return Call("POST", "fault", rule, &out) ? out["id"].asUInt64() : 0;
}

Json::Value BodyRule(const std::string& method, const std::string& path, int status,
                     const std::string& body, int times) {
  Json::Value rule;
  rule["method"] = method;
  rule["path"] = path;
  rule["status"] = status;
  rule["body"] = body;
  rule["times"] = times;
  return rule;
}

uint64_t EmulatorClient::ScriptJson(const std::string& method, const std::string& path,
                                    const Json::Value& json, int status, int times) {
  Json::Value rule(Json::objectValue);
  rule["method"] = method;
  rule["path"] = path;
  rule["status"] = status;
  rule["json"] = json;
  rule["times"] = times;
  return Script(rule);
}

uint64_t EmulatorClient::FaultOnce(const std::string& method, const std::string& path,
                                   const std::string& kind, Json::Value extra) {
  if (!extra.isObject()) extra = Json::Value(Json::objectValue);
  extra["method"] = method;
  extra["path"] = path;
  extra["kind"] = kind;
  if (!extra.isMember("times")) extra["times"] = 1;
  return Fault(extra);
}

bool EmulatorClient::SetDirectory(const Json::Value& change) {
  return Call("POST", "directory", change);
}

bool EmulatorClient::ClearDirectory() { return Call("DELETE", "directory"); }

std::vector<LoggedRequest> EmulatorClient::Requests(uint64_t since) {
  std::vector<LoggedRequest> list;
  Json::Value out;
  if (!Call("GET", "log?since=" + std::to_string(since), Json::Value(), &out)) return list;
  for (const auto& e : out["requests"]) list.push_back(ToLoggedRequest(e));
  return list;
}

std::vector<LoggedRequest> EmulatorClient::RequestsTo(const std::string& path) {
  std::vector<LoggedRequest> list;
  for (auto& r : Requests()) {
    if (r.path == path) list.push_back(std::move(r));
  }
  return list;
}

bool EmulatorClient::ClearLog() { return Call("POST", "log/clear"); }

bool EmulatorClient::WaitForRequests(size_t count, int timeout_ms, const std::string& path,
                                     const std::string& method) {
  Json::Value in(Json::objectValue), out;
  in["count"] = Json::UInt64(count);
  in["timeout_ms"] = timeout_ms;
  if (!path.empty()) in["path"] = path;
  if (!method.empty()) in["method"] = method;
  return Call("POST", "log/wait", in, &out, timeout_ms + 30000) && out["ok"].asBool();
}

bool EmulatorClient::WaitForStalls(size_t count, int timeout_ms) {
  Json::Value in(Json::objectValue), out;
  in["count"] = Json::UInt64(count);
  in["timeout_ms"] = timeout_ms;
  return Call("POST", "stalls/wait", in, &out, timeout_ms + 30000) && out["ok"].asBool();
}

int EmulatorClient::Release(uint64_t id) {
  Json::Value in(Json::objectValue), out;
  if (id != 0) in["id"] = Json::UInt64(id);
  return Call("POST", "release", in, &out) ? out["released"].asInt() : 0;
}

bool EmulatorClient::Seed(const std::string& what, const Json::Value& records) {
  return Call("POST", what, records);
}

Json::Value EmulatorClient::Inspect(const std::string& what) {
  Json::Value out;
  return Call("GET", what, Json::Value(), &out) ? out : Json::Value();
}

bool EmulatorClient::SeedUser(const std::string& cUserID, const std::string& token,
                              const std::string& email, bool online) {
  Json::Value u(Json::objectValue);
  u["cUserID"] = cUserID;
  u["token"] = token;
  u["userEmail"] = email;
  u["cState"] = online ? 1 : 0;
  return Seed("users", u);
}

Json::Value EmulatorClient::QueueMessage(const std::string& token, int type,
                                         const Json::Value& message, Json::Value extra) {
  extra["token"] = token;
  extra["type"] = type;
  extra["message"] = message;
  Json::Value out;
  return Call("POST", "inbox", extra, &out) ? out["messages"][0] : Json::Value();
}

bool EmulatorClient::WaitForMessages(size_t count, const std::string& state,
                                     const std::string& token, int timeout_ms) {
  Json::Value in(Json::objectValue), out;
  in["count"] = Json::UInt64(count);
  in["state"] = state;
  if (!token.empty()) in["token"] = token;
  in["timeout_ms"] = timeout_ms;
  return Call("POST", "inbox/wait", in, &out, timeout_ms + 30000) && out["ok"].asBool();
}

bool EmulatorClient::QueueNextPollingTime(const Json::Value& seconds) {
  Json::Value in(Json::objectValue);
  in["nextPollingTime"] = seconds;
  return Call("POST", "polling/elements", in);
}

std::string EmulatorClient::OpenTlsListener(const std::string& kind) {
  Json::Value in(Json::objectValue), out;
  in["kind"] = kind;
  return Call("POST", "tls-listener", in, &out) ? out["base"].asString() : std::string();
}

EmulatorClient* AcquireEmulator(std::string* why_not, bool* is_error) {
  static std::mutex m;
  static std::unique_ptr<EmulatorClient> client;
#ifdef TPCSDK_TESTKIT_INPROCESS_EMULATOR
  // OpenSSL is set up before the emulator, so its clean-up at exit runs after the
  // emulator has stopped: the emulator's connection threads then end, and give back
  // their per-thread TLS state, while the library is still there.
  static const bool tls_ready = OPENSSL_init_ssl(0, nullptr) == 1;
  static std::unique_ptr<tpcsdk::emulator::Emulator> local;
#endif
  std::lock_guard<std::mutex> lock(m);
  *is_error = false;
  if (client == nullptr) {
    const char* url = std::getenv("TDOC_EMULATOR_URL");
    if (url != nullptr && *url != '\0') {
      client = std::make_unique<EmulatorClient>(url);
    } else {
#ifdef TPCSDK_TESTKIT_INPROCESS_EMULATOR
      if (!tls_ready) {
        *why_not = "cannot set up TLS for the in-process emulator";
        *is_error = true;
        return nullptr;
      }
      local = std::make_unique<tpcsdk::emulator::Emulator>();
      std::string error;
      if (!local->Start(tpcsdk::emulator::Options(), &error)) {
        local.reset();
        *why_not = "cannot start the in-process emulator: " + error;
        *is_error = true;
        return nullptr;
      }
      client = std::make_unique<EmulatorClient>(local->BaseUrl());
#else
      *why_not = "no emulator: set TDOC_EMULATOR_URL to a running tdoc-emulator";
      return nullptr;
#endif
    }
  }
  if (!client->Reset()) {
    *why_not = "emulator at " + client->base_url() + " does not answer: " + client->last_error();
    *is_error = true;
    return nullptr;
  }
  return client.get();
}

}  // namespace testkit
