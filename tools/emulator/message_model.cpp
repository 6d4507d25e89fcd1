#include "message_model.h"

#include <algorithm>
#include <chrono>
#include <stdexcept>

namespace tpcsdk::emulator {
namespace {

constexpr int kBadMember = 110001;        // a body or parameter of the wrong shape
constexpr int kUnknownDocument = 110002;  // cDocID names no document
constexpr int kNoSuchMessage = 130001;    // no message of that id and type for the token
constexpr int kTokenInvalid = 210007;     // the token names no user
constexpr int kNotAllowed = 405;

// The acknowledged types by the `msgType` that acknowledges them.
struct AckType {
  int msg_type;
  int type;
};
constexpr AckType kAckTypes[] = {{1, 102}, {2, 103}, {3, 104}, {4, 105}, {5, 109}};
// The types a message can be posted for.
constexpr int kPostable[] = {101, 102, 103, 104, 105, 109, 110};

bool Acknowledged(int type) {
  return std::any_of(std::begin(kAckTypes), std::end(kAckTypes),
                     [type](const AckType& a) { return a.type == type; });
}

std::string Str(const Json::Value& v, const char* name) {
  return v.isObject() && v[name].isString() ? v[name].asString() : std::string();
}

// `v` as an int when it is an integer in range.
bool AsInt(const Json::Value& v, int* out) {
  if (!v.isInt()) return false;
  *out = v.asInt();
  return true;
}

[[noreturn]] void Bad(const std::string& why) { throw std::invalid_argument(why); }

Json::Value DefaultConfig() {
  Json::Value c(Json::objectValue);
  c["minimumPollingTime"] = 15;
  c["maxPollingNotResultCount"] = 250;
  return c;
}

// One template for each kind of message that is shown with one.
Json::Value DefaultTemplates() {
  struct Def {
    const char* id;
    const char* title;
    const char* body;
  };
  static const Def kDefs[] = {
      {"tpl-share", "Shared with you", "{sender} shared {docName} with you."},
      {"tpl-request-file", "File request", "{sender} asks for {docName}."},
      {"tpl-homepage", "News", "{title}"},
      {"tpl-share-view", "Shared view", "{sender} invites you to view {docName}."},
  };
  Json::Value out(Json::arrayValue);
  for (const Def& d : kDefs) {
    Json::Value t(Json::objectValue);
    t["_id"] = d.id;
    t["title"] = d.title;
    t["content"] = d.body;
    out.append(t);
  }
  return out;
}

void CheckTemplate(const Json::Value& t) {
  if (!t.isObject() || Str(t, "_id").empty())
    Bad("a template must be an object with a non-empty '_id'");
}

}  // namespace

bool MessageModel::Posted::Pending() const {
  return emulator::Acknowledged(type) ? acks == 0 : deliveries == 0;
}

Json::Value MessageModel::Posted::ToJson() const {
  Json::Value v(Json::objectValue);
  v["id"] = Json::UInt64(id);
  v["token"] = token;
  v["type"] = type;
  if (type == 103 || type == 109) v["cAppID"] = app;
  if (type == 101) v["cDocID"] = doc;
  v["message"] = message;
  v["deliveries"] = Json::UInt64(deliveries);
  v["firstRound"] = Json::UInt64(first_round);
  v["delivered"] = deliveries > 0;
  v["acks"] = Json::UInt64(acks);
  v["firstAck"] = Json::UInt64(first_ack);
  v["acknowledged"] = Acknowledged();
  v["pending"] = Pending();
  return v;
}

MessageModel::MessageModel(ServiceModel* service) : service_(service) { Reset(); }

void MessageModel::Reset() {
  std::lock_guard<std::mutex> lock(mu_);
  posted_.clear();
  next_id_ = 1;
  acks_ = Json::Value(Json::arrayValue);
  templates_ = DefaultTemplates();
  config_ = DefaultConfig();
  first_.clear();
  last_.clear();
  changed_.notify_all();
}

void MessageModel::Shutdown() {
  std::lock_guard<std::mutex> lock(mu_);
  shutdown_ = true;
  changed_.notify_all();
}

bool MessageModel::Answer(const Request& req, Reply* reply) {
  const std::string path = req.DecodedPath();
  const std::string& m = req.method;
  const bool get = m == "GET" || m == "HEAD";
  struct Route {
    const char* path;
    bool get;  // GET (and HEAD), otherwise the one method below
    const char* method;
    Reply (MessageModel::*handler)(const Request&);
  };
  static const Route kRoutes[] = {
      {"/tdocapi/v1/messages/polling", false, "POST", &MessageModel::Poll},
      {"/tdocapi/v1/messages", false, "PUT", &MessageModel::Acknowledge},
      {"/tdocapi/v1/messages/templates", true, "GET", &MessageModel::Templates},
      {"/tdocapi/v1/messages/polling-config", true, "GET", &MessageModel::PollingConfig},
      {"/tdocapi/v1/documents/version-notification", true, "GET", &MessageModel::LatestVersion},
  };
  for (const Route& r : kRoutes) {
    if (path != r.path) continue;
    if (r.get ? get : m == r.method) {
      std::unique_lock<std::mutex> lock(mu_);
      try {
        *reply = (this->*r.handler)(req);
      } catch (const std::exception& e) {
        *reply = Failure(500, std::string("emulator error: ") + e.what());
        reply->status = 500;
      }
      changed_.notify_all();
    } else {
      *reply = Failure(kNotAllowed, m + " is not served at " + path);
    }
    return true;
  }
  return false;
}

// ---- the round -------------------------------------------------------------

Reply MessageModel::Poll(const Request& req) {
  Json::Value body;
  std::string errors;
  if (!ParseJson(req.body, &body, &errors) || !body.isObject() ||
      !body["parameterList"].isArray())
    return Failure(kBadMember, "the body must be an object with a 'parameterList' array");
  Json::Value data(Json::arrayValue);
  for (const auto& e : first_) data.append(e);
  for (const auto& p : body["parameterList"]) data.append(PollElement(req, p));
  for (const auto& e : last_) data.append(e);
  first_.clear();
  last_.clear();
  return Envelope(0, "", data);
}

// The element that answers one parameter: the parameter echoed, the result
// for its token in `messageCode`, and what is waiting in `data`.
Json::Value MessageModel::PollElement(const Request& req, const Json::Value& parameter) {
  Json::Value element(Json::objectValue);
  element["parameter"] = parameter;
  element["messageCode"] = 0;
  element["data"] = Json::Value(Json::arrayValue);
  int type = 0;
  const std::string token = Str(parameter, "token");
  if (!parameter.isObject() || !AsInt(parameter["type"], &type) || token.empty()) {
    element["messageCode"] = kBadMember;
    return element;
  }
  if (!service_->KnowsToken(token)) {
    element["messageCode"] = kTokenInvalid;
    return element;
  }
  const std::string app = Str(parameter, "cAppID");
  if (type < 101 || type > 110 || ((type == 103 || type == 109) && app.empty())) {
    element["messageCode"] = kBadMember;
    return element;
  }
  Json::Value& data = element["data"];
  if (type == 101) {
    int code = 0;
    data = TakeUpdates(req, parameter, &code);
    element["messageCode"] = code;
    return element;
  }
  if (type == 110) data = Json::Value(Json::objectValue);
  for (Posted& p : posted_) {
    if (p.token != token || p.type != type || !p.Pending()) continue;
    if (!p.app.empty() && p.app != app) continue;
    if (type == 110) {
      // One count: the latest posted wins, and every waiting one is answered.
      data = p.message;
    } else {
      data.append(p.message);
    }
    if (p.deliveries++ == 0) p.first_round = req.seq;
  }
  return element;
}

// Type 101: the versions of the document registered after the polled
// `cVersionID`, newest first, then the update messages posted for the
// document. A version the document does not have yields no versions.
Json::Value MessageModel::TakeUpdates(const Request& req, const Json::Value& parameter,
                                      int* code) {
  Json::Value out(Json::arrayValue);
  const std::string doc = Str(parameter, "cDocID");
  if (doc.empty()) {
    *code = kBadMember;
    return out;
  }
  Json::Value versions;
  service_->VersionsOf(doc, &versions);
  const std::string known = Str(parameter, "cVersionID");
  for (Json::ArrayIndex i = 0; i < versions.size(); ++i) {
    if (Str(versions[i], "cVersionID") != known) continue;
    for (Json::ArrayIndex j = versions.size(); j > i + 1; --j) out.append(versions[j - 1]);
    break;
  }
  const std::string token = Str(parameter, "token");
  for (Posted& p : posted_) {
    if (p.type != 101 || p.token != token || p.doc != doc || !p.Pending()) continue;
    out.append(p.message);
    p.deliveries = 1;
    p.first_round = req.seq;
  }
  return out;
}

// ---- acknowledgement, templates, configuration, latest version -------------

Reply MessageModel::Acknowledge(const Request& req) {
  Json::Value record(Json::objectValue);
  record["seq"] = Json::UInt64(req.seq);
  const std::string token = QueryParam(req, "access-token");
  record["token"] = token;
  record["body"] = req.body;
  auto answer = [&](int ret, const std::string& why) {
    record["ret"] = ret;
    acks_.append(record);
    return ret == 0 ? Envelope(0, "", Json::Value(Json::arrayValue)) : Failure(ret, why);
  };
  if (!service_->KnowsToken(token)) return answer(kTokenInvalid, "access token is invalid");
  Json::Value body;
  std::string errors;
  if (!ParseJson(req.body, &body, &errors) || !body.isObject())
    return answer(kBadMember, "the body must be a JSON object");
  const std::string id = Str(body, "id");
  int msg_type = 0;
  if (id.empty() || !AsInt(body["msgType"], &msg_type))
    return answer(kBadMember, "'id' (a text) and 'msgType' (a number) are needed");
  if (body.isMember("isDelivery") && !body["isDelivery"].isIntegral())
    return answer(kBadMember, "'isDelivery' must be a number");
  const auto* ack = std::find_if(std::begin(kAckTypes), std::end(kAckTypes),
                                 [msg_type](const AckType& a) { return a.msg_type == msg_type; });
  if (ack == std::end(kAckTypes)) return answer(kBadMember, "no such msgType");
  for (Posted& p : posted_) {
    if (p.token != token || p.type != ack->type || Str(p.message, "_id") != id) continue;
    if (p.acks++ == 0) p.first_ack = req.seq;
    return answer(0, "");
  }
  return answer(kNoSuchMessage, "no message of that id and type for the token");
}

Reply MessageModel::Templates(const Request& req) {
  if (!service_->KnowsToken(QueryParam(req, "access-token")))
    return Failure(kTokenInvalid, "access token is invalid or expired");
  const std::string id = QueryParam(req, "id");
  Json::Value found(Json::arrayValue);
  for (const auto& t : templates_) {
    if (id.empty() || Str(t, "_id") == id) found.append(t);
  }
  return Envelope(0, "", found);
}

Reply MessageModel::PollingConfig(const Request& req) {
  const std::string token = QueryParam(req, "access-token");
  if (!token.empty() && !service_->KnowsToken(token))
    return Failure(kTokenInvalid, "access token is invalid or expired");
  Json::Value data(Json::arrayValue);
  data.append(config_);
  return Envelope(0, "", data);
}

// The latest version of a document when it is not the one given ("latest=1"),
// or otherwise every later one, newest first; an empty list when there is none.
Reply MessageModel::LatestVersion(const Request& req) {
  if (!service_->KnowsToken(QueryParam(req, "access-token")))
    return Failure(kTokenInvalid, "access token is invalid or expired");
  const std::string doc = QueryParam(req, "cDocID");
  if (doc.empty()) return Failure(kBadMember, "cDocID is missing");
  Json::Value versions;
  if (!service_->VersionsOf(doc, &versions))
    return Failure(kUnknownDocument, "cDocID names no document");
  const std::string given = QueryParam(req, "cVersionID");
  Json::Value later(Json::arrayValue);
  for (Json::ArrayIndex j = versions.size(); j > 0; --j) {
    if (Str(versions[j - 1], "cVersionID") == given) break;
    later.append(versions[j - 1]);
  }
  if (QueryParam(req, "latest") == "1" && later.size() > 1) later.resize(1);
  return Envelope(0, "", later);
}

// ---- control -----------------------------------------------------------------

Json::Value MessageModel::AddMessage(const Json::Value& in) {
  Posted p;
  p.token = Str(in, "token");
  if (p.token.empty()) Bad("a message needs 'token' (a non-empty text)");
  if (!AsInt(in["type"], &p.type) ||
      std::find(std::begin(kPostable), std::end(kPostable), p.type) == std::end(kPostable))
    Bad("'type' must be one of 101, 102, 103, 104, 105, 109, 110");
  for (const char* text : {"cAppID", "cDocID"}) {
    if (in.isMember(text) && !in[text].isString()) Bad(std::string("'") + text + "' must be a text");
  }
  p.app = Str(in, "cAppID");
  p.doc = Str(in, "cDocID");
  if (p.type == 101 && p.doc.empty()) Bad("an update message needs 'cDocID'");
  p.message = in.isMember("message") ? in["message"] : Json::Value(Json::objectValue);
  if (!p.message.isObject()) Bad("'message' must be an object");
  if (p.message.isMember("_id") && !p.message["_id"].isString()) Bad("'_id' must be a text");
  p.id = next_id_++;
  if (Acknowledged(p.type)) {
    // The id the client acknowledges with; unique among the token's messages.
    if (Str(p.message, "_id").empty()) p.message["_id"] = "msg-" + std::to_string(p.id);
    for (const Posted& q : posted_) {
      if (q.token == p.token && Str(q.message, "_id") == Str(p.message, "_id"))
        Bad("the token has a message with _id " + Str(p.message, "_id") + " already");
    }
  }
  posted_.push_back(p);
  return p.ToJson();
}

Json::Value MessageModel::List(const std::string& token, int type) const {
  Json::Value out(Json::objectValue);
  Json::Value& list = out["messages"] = Json::Value(Json::arrayValue);
  for (const Posted& p : posted_) {
    if ((token.empty() || p.token == token) && (type == 0 || p.type == type))
      list.append(p.ToJson());
  }
  out["acks"] = acks_;
  return out;
}

size_t MessageModel::Count(const std::string& state, const std::string& token) const {
  return static_cast<size_t>(std::count_if(posted_.begin(), posted_.end(), [&](const Posted& p) {
    if (!token.empty() && p.token != token) return false;
    return state == "acknowledged" ? p.Acknowledged() : p.deliveries > 0;
  }));
}

bool MessageModel::Control(const std::string& method, const std::string& what,
                           const Json::Value& in, Json::Value* out) {
  const bool post = method == "POST";
  std::unique_lock<std::mutex> lock(mu_);
  if (what == "inbox" && post) {
    // All or nothing: the records are checked before any is kept.
    const size_t before = posted_.size();
    const uint64_t next = next_id_;
    Json::Value posted(Json::arrayValue);
    try {
      if (in.isMember("messages")) {
        if (!in["messages"].isArray()) Bad("'messages' must be an array");
        for (const auto& m : in["messages"]) posted.append(AddMessage(m));
      } else {
        posted.append(AddMessage(in));
      }
    } catch (...) {
      posted_.resize(before);
      next_id_ = next;
      throw;
    }
    *out = Json::Value(Json::objectValue);
    (*out)["messages"] = posted;
    return true;
  }
  if (what == "inbox" && method == "GET") {
    int type = 0;
    if (in.isMember("type") && !AsInt(in["type"], &type)) Bad("'type' must be a number");
    *out = List(Str(in, "token"), type);
    return true;
  }
  if (what == "inbox/wait" && post) {
    const std::string state = in.isMember("state") ? Str(in, "state") : "acknowledged";
    if (state != "acknowledged" && state != "delivered")
      Bad("'state' must be \"acknowledged\" or \"delivered\"");
    int count = 1, timeout_ms = 5000;
    if ((in.isMember("count") && (!AsInt(in["count"], &count) || count < 0)) ||
        (in.isMember("timeout_ms") &&
         (!AsInt(in["timeout_ms"], &timeout_ms) || timeout_ms < 0 || timeout_ms > 300000)))
      Bad("'count' and 'timeout_ms' (up to 300000) must be numbers of 0 or more");
    const std::string token = Str(in, "token");
    size_t n = 0;
    changed_.wait_for(lock, std::chrono::milliseconds(timeout_ms), [&] {
      n = Count(state, token);
      return n >= static_cast<size_t>(count) || shutdown_;
    });
    *out = Json::Value(Json::objectValue);
    (*out)["ok"] = n >= static_cast<size_t>(count);
    (*out)["count"] = Json::UInt64(n);
    return true;
  }
  if (what == "polling/elements" && post) {
    std::vector<Json::Value> add;
    if (in.isMember("nextPollingTime")) {
      Json::Value control(Json::objectValue);
      control["nextPollingTime"] = in["nextPollingTime"];
      add.push_back(control);
    }
    if (in.isMember("elements")) {
      if (!in["elements"].isArray()) Bad("'elements' must be an array");
      for (const auto& e : in["elements"]) add.push_back(e);
    }
    if (add.empty()) Bad("give 'nextPollingTime' or 'elements'");
    if (in.isMember("first") && !in["first"].isBool()) Bad("'first' must be true or false");
    auto& into = in["first"].asBool() ? first_ : last_;
    into.insert(into.end(), add.begin(), add.end());
  }
  if (what == "polling/elements" && (post || method == "GET")) {
    *out = Json::Value(Json::objectValue);
    Json::Value& first = (*out)["first"] = Json::Value(Json::arrayValue);
    Json::Value& last = (*out)["last"] = Json::Value(Json::arrayValue);
    for (const auto& e : first_) first.append(e);
    for (const auto& e : last_) last.append(e);
    return true;
  }
  if (what == "polling/config" && post) config_ = in;
  if (what == "polling/config" && (post || method == "GET")) {
    *out = config_;
    return true;
  }
  if (what == "templates" && post) {
    Json::Value kept = templates_;
    if (in.isMember("templates") && !in["templates"].isArray()) Bad("'templates' must be an array");
    const Json::Value records = in.isMember("templates") ? in["templates"] : Json::Value(in);
    auto add = [&](const Json::Value& t) {
      CheckTemplate(t);
      for (auto& old : kept) {
        if (Str(old, "_id") == Str(t, "_id")) {
          old = t;
          return;
        }
      }
      kept.append(t);
    };
    if (records.isArray()) {
      for (const auto& t : records) add(t);
    } else {
      add(records);
    }
    templates_ = kept;
  }
  if (what == "templates" && (post || method == "GET")) {
    *out = Json::Value(Json::objectValue);
    (*out)["templates"] = templates_;
    return true;
  }
  return false;
}

}  // namespace tpcsdk::emulator
