#include "service_model.h"

#include "files.h"

#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace tpcsdk::emulator {
namespace {

// The service's own result codes (`ret` of the envelope).
constexpr int kBadMember = 110001;         // body not an object; a member missing, empty or mistyped
constexpr int kUnknownDocument = 110002;   // cDocID names no registered document
constexpr int kUnknownUser = 110003;       // a non-empty cUserID names no user
constexpr int kDuplicate = 110004;         // the document (or, for a tdoc, its version) exists
constexpr int kUnknownParent = 110005;     // a non-empty parentID names no document
constexpr int kUnknownVersion = 110008;    // cVersionID names no version (of that document)
constexpr int kDuplicateVersion = 110013;  // the version exists
constexpr int kNoSuchUser = 120001;        // a user look-up by cUserID or e-mail found nobody
constexpr int kNoSuchMessage = 130001;     // no open message of that application and id
constexpr int kTokenInvalid = 210007;      // the access token names no user
constexpr int kNotAllowed = 405;           // the path is known, the method is not

// The second-generation paths report in `code`, without `ret`.
constexpr int kCodeOk = 100000;
constexpr int kCodeBadRequest = 100001;
constexpr int kCodeNotFound = 100002;
constexpr int kCodeRefused = 100003;

const char* const kUserMembers[] = {"token", "userEmail", "cUserID", "firstname", "lastname",
                                    "userMobile"};
const char* const kDocumentMembers[] = {
    "cAppID",        "cDocID",         "parentID",         "cUserID",
    "createTime",    "docName",        "modifiedTime",     "originalAuthor",
    "originalFilename", "connectedNotification"};
const char* const kVersionMembers[] = {"cAppID", "cDocID",  "cVersionID", "parentID",
                                       "cUserID", "createTime", "docName", "docPath", "docURI"};
const char* const kDeviceMembers[] = {"type", "mobileDeviceId", "deviceName", "deviceModel",
                                      "mac", "os", "productName", "productVendor",
                                      "productVersion", "productLanguage"};

const char* const kWrapperLinks[] = {"protectWrapperFilelink", "requestPermissionFilelink",
                                     "requestPermissionLicenseFilelink"};
const char* const kLists[] = {"users",    "devices", "issuedTickets", "documents", "versions",
                              "usage",    "mails",   "images",        "messages"};
constexpr size_t kMaxPatternBytes = 64u << 20;
constexpr int kMaxPaceMs = 10000;

const char kDefaultAgreement[] =
    "Terms of use of the tdoc emulator: a local stand-in for the document service, for "
    "tests and development only.";

std::string Str(const Json::Value& v, const char* name) {
  return v.isObject() && v[name].isString() ? v[name].asString() : std::string();
}

Reply JsonReply(int status, const Json::Value& v) {
  Reply r;
  r.status = status;
  r.headers.emplace_back("Content-Type", "application/json");
  r.body = CompactJson(v);
  return r;
}

Reply One(const Json::Value& record) {
  Json::Value data(Json::arrayValue);
  data.append(record);
  return Envelope(0, "", data);
}

Reply CodeReply(int code, const std::string& message, const Json::Value& data) {
  Json::Value v(Json::objectValue);
  v["code"] = code;
  v["message"] = message;
  if (!data.isNull()) v["data"] = data;
  return JsonReply(200, v);
}

// The request body as a JSON object; false when it is not one.
bool BodyObject(const Request& req, Json::Value* out) {
  std::string errors;
  return ParseJson(req.body, out, &errors) && out->isObject();
}

// What is wrong with a service body: `required` are non-empty strings,
// `strings` are strings when present, `integers` integers when present. Empty
// when nothing is.
std::string Problem(const Json::Value& body, std::initializer_list<const char*> required,
                    std::initializer_list<const char*> strings,
                    std::initializer_list<const char*> integers = {}) {
  for (const char* m : required) {
    if (!body[m].isString() || body[m].asString().empty())
      return std::string(m) + " is missing or empty";
  }
  for (const char* m : strings) {
    if (body.isMember(m) && !body[m].isString()) return std::string(m) + " must be a string";
  }
  for (const char* m : integers) {
    if (body.isMember(m) && !body[m].isIntegral()) return std::string(m) + " must be an integer";
  }
  return "";
}

// Copies the named string members of `from` that are there.
template <size_t N>
Json::Value Pick(const Json::Value& from, const char* const (&names)[N]) {
  Json::Value out(Json::objectValue);
  for (const char* n : names) {
    if (from[n].isString()) out[n] = from[n];
  }
  return out;
}

Json::Value DefaultModel() {
  Json::Value m(Json::objectValue);
  for (const char* list : kLists) m[list] = Json::Value(Json::arrayValue);
  for (const char* map : {"tickets", "thirdUsers", "agreements"})
    m[map] = Json::Value(Json::objectValue);
  m["agreements"]["1"] = kDefaultAgreement;
  m["appSecret"] = "";
  m["serverTime"] = "";
  m["optionConfig"] = Json::Value(Json::objectValue);
  Json::Value& w = m["wrappers"];
  w["protectWrapperFilelink"] = "{base}/files/wrappers/ProtectWrapper.pdf";
  w["requestPermissionFilelink"] = "{base}/files/wrappers/ReqPermWrapper.pdf";
  w["requestPermissionLicenseFilelink"] = "{base}/files/wrappers/ReqPermWrapper_LicenseCode.pdf";
  w["updateTime"] = "2026-01-01 00:00:00";
  m["nextId"] = 1;
  return m;
}

// ---- records the control API seeds (and the state file holds) ------------

struct BadInput : std::invalid_argument {
  using std::invalid_argument::invalid_argument;
};

void NeedType(const Json::Value& rec, const char* member, bool ok, const char* what) {
  if (rec.isMember(member) && !ok)
    throw BadInput(std::string("'") + member + "' must be " + what);
}

template <size_t N>
void NeedStrings(const Json::Value& rec, const char* const (&names)[N]) {
  for (const char* n : names) NeedType(rec, n, rec[n].isString(), "a string");
}

void CheckUser(const Json::Value& u) {
  if (!u.isObject()) throw BadInput("a user must be an object");
  NeedStrings(u, kUserMembers);
  NeedType(u, "cState", u["cState"].isIntegral(), "an integer");
}

void CheckDocument(const Json::Value& d) {
  if (!d.isObject() || Str(d, "cDocID").empty())
    throw BadInput("a document must be an object with a non-empty 'cDocID'");
  NeedStrings(d, kDocumentMembers);
  NeedType(d, "isNotificationDoc", d["isNotificationDoc"].isBool(), "true or false");
}

void CheckVersion(const Json::Value& v) {
  if (!v.isObject() || Str(v, "cVersionID").empty() || Str(v, "cDocID").empty())
    throw BadInput("a version must be an object with non-empty 'cVersionID' and 'cDocID'");
  NeedStrings(v, kVersionMembers);
  for (const char* n : {"docSize", "docPageCount"})
    NeedType(v, n, v[n].isIntegral(), "an integer");
}

void CheckMessage(const Json::Value& msg) {
  if (!msg.isObject() || Str(msg, "cAppID").empty() || Str(msg, "msgId").empty())
    throw BadInput("a message must be an object with non-empty 'cAppID' and 'msgId'");
}

void CheckWrappers(const Json::Value& w) {
  if (!w.isObject()) throw BadInput("'wrappers' must be an object");
  for (const char* n : kWrapperLinks) NeedType(w, n, w[n].isString(), "a string");
  NeedType(w, "updateTime", w["updateTime"].isString(), "a string");
}

Reply Plain(int status, const std::string& type, const std::string& body) {
  Reply r;
  r.status = status;
  r.headers.emplace_back("Content-Type", type);
  r.body = body;
  return r;
}

// The records of a seed call: `in[plural]` as an array, or `in` itself.
std::vector<Json::Value> Records(const Json::Value& in, const char* plural) {
  std::vector<Json::Value> out;
  if (in.isMember(plural)) {
    if (!in[plural].isArray()) throw BadInput(std::string("'") + plural + "' must be an array");
    for (const auto& r : in[plural]) out.push_back(r);
  } else {
    out.push_back(in);
  }
  return out;
}

// Adds `rec` to `list`, or merges it into the entry with the same `key`.
void Upsert(Json::Value* list, const char* key, const Json::Value& rec) {
  for (auto& e : *list) {
    if (Str(e, key) == Str(rec, key)) {
      for (const auto& name : rec.getMemberNames()) e[name] = rec[name];
      return;
    }
  }
  list->append(rec);
}

bool RemoveFrom(Json::Value* list, const char* key, const std::string& value) {
  Json::Value kept(Json::arrayValue);
  bool removed = false;
  for (const auto& e : *list) {
    if (Str(e, key) == value) {
      removed = true;
    } else {
      kept.append(e);
    }
  }
  *list = kept;
  return removed;
}

// Checks a whole model as the state file holds it.
void CheckModel(const Json::Value& m) {
  if (!m.isObject()) throw BadInput("the model must be a JSON object");
  for (const char* list : kLists) {
    if (!m[list].isArray()) throw BadInput(std::string("'") + list + "' must be an array");
    for (const auto& e : m[list]) {
      if (!e.isObject()) throw BadInput(std::string("'") + list + "' must hold objects");
    }
  }
  for (const char* map : {"tickets", "thirdUsers", "agreements"}) {
    if (!m[map].isObject()) throw BadInput(std::string("'") + map + "' must be an object");
  }
  for (const auto& u : m["users"]) CheckUser(u);
  for (const auto& d : m["documents"]) CheckDocument(d);
  for (const auto& v : m["versions"]) CheckVersion(v);
  for (const auto& name : m["agreements"].getMemberNames()) {
    if (!m["agreements"][name].isString()) throw BadInput("agreements must be texts");
  }
  for (const auto& name : m["thirdUsers"].getMemberNames()) {
    if (!m["thirdUsers"][name].isObject()) throw BadInput("third users must be objects");
  }
  for (const auto& msg : m["messages"]) CheckMessage(msg);
  for (const char* text : {"appSecret", "serverTime"}) {
    if (!m[text].isString()) throw BadInput(std::string("'") + text + "' must be a string");
  }
  CheckWrappers(m["wrappers"]);
  if (!m["nextId"].isUInt64()) throw BadInput("'nextId' must be a whole number");
}

}  // namespace

Reply Envelope(int ret, const std::string& message, const Json::Value& data) {
  Json::Value v(Json::objectValue);
  v["ret"] = ret;
  v["message"] = message;
  v["returned"] = data.isArray() ? static_cast<int>(data.size()) : (data.isNull() ? 0 : 1);
  v["data"] = data;
  return JsonReply(200, v);
}

Reply Failure(int ret, const std::string& message) {
  return Envelope(ret, message, Json::Value(Json::arrayValue));
}

std::string CompactJson(const Json::Value& v) {
  Json::StreamWriterBuilder b;
  b["indentation"] = "";
  b["emitUTF8"] = true;
  return Json::writeString(b, v);
}

bool ParseJson(const std::string& text, Json::Value* out, std::string* errors) {
  Json::CharReaderBuilder b;
  b["collectComments"] = false;
  std::unique_ptr<Json::CharReader> reader(b.newCharReader());
  try {
    return reader->parse(text.data(), text.data() + text.size(), out, errors);
  } catch (const std::exception& e) {
    *errors = e.what();
    return false;
  }
}

ServiceModel::ServiceModel() : data_(DefaultModel()) {}

bool ServiceModel::UseStateFile(const std::string& path, std::string* error) {
  std::lock_guard<std::mutex> lock(mu_);
  std::ifstream in(path, std::ios::binary);
  if (in) {
    std::stringstream text;
    text << in.rdbuf();
    Json::Value loaded;
    std::string errors;
    if (!ParseJson(text.str(), &loaded, &errors)) {
      *error = "state file " + path + " is not JSON: " + errors;
      return false;
    }
    // Members the file lacks take their defaults.
    Json::Value m = DefaultModel();
    if (loaded.isObject()) {
      for (const auto& name : loaded.getMemberNames()) m[name] = loaded[name];
    }
    try {
      if (!loaded.isObject()) throw BadInput("the model must be a JSON object");
      CheckModel(m);
    } catch (const std::exception& e) {
      *error = "state file " + path + ": " + e.what();
      return false;
    }
    data_ = m;
  }
  state_file_ = path;
  std::string tmp = path + ".tmp";
  std::ofstream probe(tmp, std::ios::binary | std::ios::trunc);
  if (!probe) {
    *error = "cannot write the state file beside " + path;
    state_file_.clear();
    return false;
  }
  probe.close();
  Save();
  return true;
}

// Writes the model to a temporary file beside the state file and renames it
// over the old one, so that a reader sees the old model or the new, never half.
void ServiceModel::Save() {
  if (state_file_.empty()) return;
  std::string tmp = state_file_ + ".tmp";
  {
    std::ofstream out(tmp, std::ios::binary | std::ios::trunc);
    out << CompactJson(data_) << "\n";
    out.flush();
    if (!out) {
      std::fprintf(stderr, "tdoc-emulator: cannot write %s\n", tmp.c_str());
      return;
    }
  }
  if (std::rename(tmp.c_str(), state_file_.c_str()) != 0)
    std::fprintf(stderr, "tdoc-emulator: cannot replace %s\n", state_file_.c_str());
}

void ServiceModel::Reset() {
  std::lock_guard<std::mutex> lock(mu_);
  data_ = DefaultModel();
  Save();
}

bool ServiceModel::KnowsToken(const std::string& token) {
  std::lock_guard<std::mutex> lock(mu_);
  return UserByToken(token) != nullptr;
}

bool ServiceModel::VersionsOf(const std::string& doc, Json::Value* versions) {
  std::lock_guard<std::mutex> lock(mu_);
  *versions = Json::Value(Json::arrayValue);
  for (const auto& v : data_["versions"]) {
    if (Str(v, "cDocID") == doc) versions->append(v);
  }
  return !versions->empty() || FindIn("documents", "cDocID", doc) != nullptr;
}

Json::Value* ServiceModel::FindIn(const char* list, const char* key, const std::string& value) {
  if (value.empty()) return nullptr;
  for (auto& e : data_[list]) {
    if (Str(e, key) == value) return &e;
  }
  return nullptr;
}

Json::Value* ServiceModel::UserByToken(const std::string& token) {
  return FindIn("users", "token", token);
}

std::string ServiceModel::NextId(const char* prefix) {
  uint64_t n = data_["nextId"].asUInt64();
  data_["nextId"] = Json::UInt64(n + 1);
  return prefix + std::to_string(n);
}

bool ServiceModel::TokenRefused(const Request& req, Reply* reply) {
  if (UserByToken(QueryParam(req, "access-token")) != nullptr) return false;
  *reply = Failure(kTokenInvalid, "access token is invalid or expired");
  return true;
}

bool ServiceModel::Answer(const Request& req, Reply* reply) {
  std::lock_guard<std::mutex> lock(mu_);
  bool handled = true;
  try {
    *reply = Dispatch(req, req.DecodedPath(), &handled);
  } catch (const std::exception& e) {
    *reply = Failure(500, std::string("emulator error: ") + e.what());
    reply->status = 500;
  }
  if (handled) Save();
  return handled;
}

Reply ServiceModel::Dispatch(const Request& req, const std::string& path, bool* handled) {
  const std::string& m = req.method;
  const bool get = m == "GET" || m == "HEAD";
  struct Route {
    const char* path;
    const char* method;
    Reply (ServiceModel::*handler)(const Request&);
  };
  static const Route kRoutes[] = {
      {"/tdocapi/v1/users/online-state", "GET", &ServiceModel::OnlineState},
      {"/tdocapi/v1/server/client-id", "POST", &ServiceModel::RegisterDevice},
      {"/tdocapi/v1/users/get-cas-ticket", "GET", &ServiceModel::CasTicket},
      {"/tdocapi/v2/server/agreement", "GET", &ServiceModel::Agreement},
      {"/tdocapi/v1/documents/tdoc", "POST", &ServiceModel::RegisterTdoc},
      {"/tdocapi/v1/documents/logs", "POST", &ServiceModel::UsageRecord},
      {"/tdocapi/v1/server/send-email", "POST", &ServiceModel::Mail},
      {"/tdocapi/v1/notifications/email", "POST", &ServiceModel::Mail},
      {"/tdocapi/v1/users/sign-image", "POST", &ServiceModel::SignImage},
      {"/tdocapi/v1/messages/open-message", "GET", &ServiceModel::OpenMessage},
      {"/tdocapi/v1/server/time", "GET", &ServiceModel::ServerTime},
      {"/tdocapi/v1/server/option-config", "GET", &ServiceModel::OptionConfig},
      {"/tdocapi/v1/wrapper/settings", "GET", &ServiceModel::WrapperSettings},
  };
  for (const Route& r : kRoutes) {
    if (path != r.path) continue;
    if (m == r.method || (get && std::string(r.method) == "GET")) return (this->*r.handler)(req);
    return Failure(kNotAllowed, m + " is not served at " + path);
  }
  if (path == "/tdocapi/v1/users") {
    if (get) return Users(req, handled);
  } else if (path == "/tdocapi/v2/users/third-user" || path == "/tdocapi/v2/users/third-user-info") {
    if (m == "POST") return ThirdUser(req, path == "/tdocapi/v2/users/third-user-info");
  } else if (path == "/tdocapi/v1/documents") {
    if (m == "POST") return RegisterDocument(req);
    if (get) return GetDocument(req);
  } else if (path == "/tdocapi/v1/documents/versions") {
    if (m == "POST" || m == "PUT" || m == "DELETE") return Versions(req);
  } else if (path.compare(0, 7, "/files/") == 0) {
    if (get) return File(req, path.substr(7), 0);
    return Plain(kNotAllowed, "text/plain", "files are read with GET\n");
  } else {
    *handled = false;
    return Reply();
  }
  return Failure(kNotAllowed, m + " is not served at " + path);
}

// ---- identity ------------------------------------------------------------

Reply ServiceModel::Users(const Request& req, bool* handled) {
  const std::string id = QueryParam(req, "cUserID");
  const std::string token = QueryParam(req, "access-token");
  const std::string email = QueryParam(req, "userEmail");
  const Json::Value* user = nullptr;
  if (!id.empty()) {
    user = FindIn("users", "cUserID", id);
  } else if (!token.empty()) {
    user = UserByToken(token);
    if (user == nullptr) return Failure(kTokenInvalid, "access token is invalid or expired");
  } else if (!email.empty()) {
    user = FindIn("users", "userEmail", email);
  } else {
    // A query by none of the model's keys is left to the default reply.
    *handled = false;
    return Reply();
  }
  if (user == nullptr) return Failure(kNoSuchUser, "no such user");
  return One(Pick(*user, kUserMembers));
}

Reply ServiceModel::OnlineState(const Request& req) {
  Reply refused;
  if (TokenRefused(req, &refused)) return refused;
  const std::string email = QueryParam(req, "userEmail");
  if (email.empty()) return Failure(kBadMember, "userEmail is missing");
  const Json::Value* user = FindIn("users", "userEmail", email);
  if (user == nullptr) return Failure(kNoSuchUser, "no user with that e-mail");
  Json::Value state(Json::objectValue);
  state["userEmail"] = email;
  state["cState"] = (*user)["cState"].isIntegral() ? (*user)["cState"].asInt() : 0;
  return One(state);
}

Reply ServiceModel::RegisterDevice(const Request& req) {
  Json::Value body;
  if (!BodyObject(req, &body)) return Failure(kBadMember, "the body must be a JSON object");
  for (const char* m : kDeviceMembers) {
    if (!body[m].isString()) return Failure(kBadMember, std::string(m) + " must be a string");
  }
  Json::Value device = Pick(body, kDeviceMembers);
  // A device that comes again keeps its client id.
  Json::Value* known = FindIn("devices", "mobileDeviceId", Str(body, "mobileDeviceId"));
  device["clientId"] = known != nullptr ? (*known)["clientId"].asString() : NextId("client-");
  Upsert(&data_["devices"], "clientId", device);
  return One(device);
}

Reply ServiceModel::CasTicket(const Request& req) {
  const std::string email = QueryParam(req, "email");
  if (email.empty()) return Failure(kBadMember, "email is missing");
  Json::Value ticket = data_["tickets"].isMember(email) ? data_["tickets"][email]
                                                         : Json::Value("ST-" + NextId("") +
                                                                       "-tdoc-emulator");
  Json::Value issued(Json::objectValue);
  issued["service"] = QueryParam(req, "service");
  issued["email"] = email;
  issued["appId"] = QueryParam(req, "appId");
  issued["ticket"] = ticket;
  data_["issuedTickets"].append(issued);
  Json::Value data(Json::objectValue);
  data["ticket"] = ticket;
  return Envelope(0, "", data);
}

Reply ServiceModel::ThirdUser(const Request& req, bool info) {
  Json::Value body;
  if (!BodyObject(req, &body)) return CodeReply(kCodeBadRequest, "the body must be a JSON object", {});
  std::string problem = Problem(body, {"thirdToken", "appName"}, {"appSecret"}, {"type"});
  if (problem.empty() && !body["appSecret"].isString()) problem = "appSecret is missing";
  if (problem.empty() && (!body["type"].isIntegral() || body["type"].asInt() != 1))
    problem = "type must be 1";
  if (!problem.empty()) return CodeReply(kCodeBadRequest, problem, {});
  const std::string secret = data_["appSecret"].asString();
  if (body["appName"].asString() != "tarvoCN" ||
      (!secret.empty() && body["appSecret"].asString() != secret))
    return CodeReply(kCodeRefused, "unknown application or wrong secret", {});
  const Json::Value& model = data_;
  const Json::Value& third = model["thirdUsers"][body["thirdToken"].asString()];
  if (!third.isObject()) return CodeReply(kCodeNotFound, "third-party token is not valid", {});
  // The user is the one the token was seeded with: a record of the model, or
  // an object given as it stands.
  Json::Value user = third["data"];
  if (!user.isObject()) {
    const Json::Value* u = FindIn("users", "cUserID", Str(third, "cUserID"));
    user = u != nullptr ? Pick(*u, kUserMembers) : Json::Value(Json::objectValue);
  }
  if (info) {
    if (third["info"].isObject()) user = third["info"];
    user["thirdToken"] = body["thirdToken"];
  }
  return CodeReply(kCodeOk, "success", user);
}

Reply ServiceModel::Agreement(const Request& req) {
  const std::string type = QueryParam(req, "type");
  if (type.empty() || type.size() > 9 || type.find_first_not_of("0123456789") != std::string::npos)
    return CodeReply(kCodeBadRequest, "type must be a number", {});
  const Json::Value& model = data_;
  const Json::Value& text = model["agreements"][type];
  if (!text.isString()) return CodeReply(kCodeNotFound, "no agreement of that type", {});
  Json::Value data(Json::objectValue);
  data["type"] = std::stoi(type);
  data["content"] = text;
  return CodeReply(kCodeOk, "success", data);
}

// ---- documents and versions ----------------------------------------------

namespace {

// What is wrong with the document members of a registration, or empty.
std::string DocumentProblem(const Json::Value& body) {
  return Problem(body, {"cAppID", "cDocID", "createTime", "docName", "modifiedTime"},
                 {"parentID", "cUserID", "originalAuthor", "originalFilename",
                  "connectedNotification"});
}

std::string VersionProblem(const Json::Value& body) {
  std::string p = Problem(body, {"cAppID", "cDocID", "cVersionID", "createTime", "docName"},
                          {"parentID", "cUserID", "docPath", "docURI"},
                          {"docSize", "docPageCount"});
  if (p.empty() && (!body["docPageCount"].isIntegral() || body["docPageCount"].asInt64() == 0))
    p = "docPageCount is missing or 0";
  return p;
}

Json::Value NewDocument(const Json::Value& body) {
  Json::Value doc = Pick(body, kDocumentMembers);
  doc["isNotificationDoc"] = !Str(body, "connectedNotification").empty();
  return doc;
}

Json::Value NewVersion(const Json::Value& body) {
  Json::Value v = Pick(body, kVersionMembers);
  v["docSize"] = body["docSize"].isIntegral() ? body["docSize"].asInt64() : 0;
  v["docPageCount"] = body["docPageCount"].asInt64();
  return v;
}

}  // namespace

Reply ServiceModel::RegisterDocument(const Request& req) {
  Json::Value body;
  if (!BodyObject(req, &body)) return Failure(kBadMember, "the body must be a JSON object");
  std::string problem = DocumentProblem(body);
  if (!problem.empty()) return Failure(kBadMember, problem);
  const std::string user = Str(body, "cUserID");
  if (!user.empty() && FindIn("users", "cUserID", user) == nullptr)
    return Failure(kUnknownUser, "cUserID names no user");
  if (FindIn("documents", "cDocID", Str(body, "cDocID")) != nullptr)
    return Failure(kDuplicate, "the document is registered already");
  const std::string parent = Str(body, "parentID");
  if (!parent.empty() && FindIn("documents", "cDocID", parent) == nullptr)
    return Failure(kUnknownParent, "parentID names no document");
  Json::Value doc = NewDocument(body);
  data_["documents"].append(doc);
  return One(doc);
}

Reply ServiceModel::GetDocument(const Request& req) {
  const std::string id = QueryParam(req, "cDocID");
  if (id.empty()) return Failure(kBadMember, "cDocID is missing");
  const Json::Value* doc = FindIn("documents", "cDocID", id);
  if (doc == nullptr) return Failure(kUnknownDocument, "no such document");
  return One(*doc);
}

Reply ServiceModel::RegisterTdoc(const Request& req) {
  Reply refused;
  if (TokenRefused(req, &refused)) return refused;
  Json::Value body;
  if (!BodyObject(req, &body)) return Failure(kBadMember, "the body must be a JSON object");
  std::string problem = DocumentProblem(body);
  if (problem.empty()) problem = Problem(body, {"cVersionID"}, {"parentVersionID", "docPath", "docURI"});
  if (problem.empty()) problem = VersionProblem(body);
  if (!problem.empty()) return Failure(kBadMember, problem);
  // Without a cUserID the document belongs to the token's user.
  if (Str(body, "cUserID").empty())
    body["cUserID"] = Str(*UserByToken(QueryParam(req, "access-token")), "cUserID");
  const std::string user = Str(body, "cUserID");
  if (!user.empty() && FindIn("users", "cUserID", user) == nullptr)
    return Failure(kUnknownUser, "cUserID names no user");
  if (FindIn("documents", "cDocID", Str(body, "cDocID")) != nullptr ||
      FindIn("versions", "cVersionID", Str(body, "cVersionID")) != nullptr)
    return Failure(kDuplicate, "the document or its version is registered already");
  const std::string parent = Str(body, "parentID");
  if (!parent.empty() && FindIn("documents", "cDocID", parent) == nullptr)
    return Failure(kUnknownParent, "parentID names no document");
  Json::Value doc = NewDocument(body);
  Json::Value version = NewVersion(body);
  version["parentID"] = Str(body, "parentVersionID");
  data_["documents"].append(doc);
  data_["versions"].append(version);
  Json::Value data(Json::objectValue);
  data["document"] = doc;
  data["version"] = version;
  return One(data);
}

Reply ServiceModel::Versions(const Request& req) {
  Json::Value body;
  if (!BodyObject(req, &body)) return Failure(kBadMember, "the body must be a JSON object");
  if (req.method == "POST") {
    // The registration's URL carries no token of its own.
    std::string problem = VersionProblem(body);
    if (!problem.empty()) return Failure(kBadMember, problem);
    if (FindIn("documents", "cDocID", Str(body, "cDocID")) == nullptr)
      return Failure(kUnknownDocument, "cDocID names no document");
    const std::string user = Str(body, "cUserID");
    if (!user.empty() && FindIn("users", "cUserID", user) == nullptr)
      return Failure(kUnknownUser, "cUserID names no user");
    if (FindIn("versions", "cVersionID", Str(body, "cVersionID")) != nullptr)
      return Failure(kDuplicateVersion, "the version is registered already");
    Json::Value version = NewVersion(body);
    data_["versions"].append(version);
    return One(version);
  }
  Reply refused;
  if (TokenRefused(req, &refused)) return refused;
  const std::string id = Str(body, "cVersionID");
  if (id.empty()) return Failure(kBadMember, "cVersionID is missing or empty");
  Json::Value* version = FindIn("versions", "cVersionID", id);
  if (version == nullptr) return Failure(kUnknownVersion, "no such version");
  if (req.method == "DELETE") {
    RemoveFrom(&data_["versions"], "cVersionID", id);
    return Envelope(0, "", Json::Value(Json::arrayValue));
  }
  // A change: every member but the id replaces the version's own.
  std::string problem = Problem(body, {}, {}, {"docSize", "docPageCount"});
  if (!problem.empty()) return Failure(kBadMember, problem);
  if (body.isMember("cDocID") && FindIn("documents", "cDocID", Str(body, "cDocID")) == nullptr)
    return Failure(kUnknownDocument, "cDocID names no document");
  for (const auto& name : body.getMemberNames()) (*version)[name] = body[name];
  return One(*version);
}

// ---- usage records, mails, images, messages, server facts ------------------

Reply ServiceModel::UsageRecord(const Request& req) {
  Json::Value body;
  if (!BodyObject(req, &body)) return Failure(kBadMember, "the body must be a JSON object");
  std::string problem = Problem(body,
                                {"cAppID", "cDocID", "cVersionID", "startTime", "docName",
                                 "operatorType", "operator"},
                                {"cUserID", "docPath", "docURI", "reviewSessionID"}, {"isCreview"});
  if (problem.empty() && body.isMember("operands") && !body["operands"].isObject() &&
      !body["operands"].isString())
    problem = "operands must be an object or a string";
  if (!problem.empty()) return Failure(kBadMember, problem);
  if (FindIn("documents", "cDocID", Str(body, "cDocID")) == nullptr)
    return Failure(kUnknownDocument, "cDocID names no document");
  const std::string user = Str(body, "cUserID");
  if (!user.empty() && FindIn("users", "cUserID", user) == nullptr)
    return Failure(kUnknownUser, "cUserID names no user");
  const Json::Value* version = FindIn("versions", "cVersionID", Str(body, "cVersionID"));
  if (version == nullptr || Str(*version, "cDocID") != Str(body, "cDocID"))
    return Failure(kUnknownVersion, "cVersionID names no version of that document");
  Json::Value record = body;
  record["logId"] = NextId("log-");
  data_["usage"].append(record);
  Json::Value id(Json::objectValue);
  id["logId"] = record["logId"];
  return One(id);
}

// The owner's mail about a version (send-email) and the host's own mail
// (notifications/email): both recorded with the sender's token.
Reply ServiceModel::Mail(const Request& req) {
  Reply refused;
  if (TokenRefused(req, &refused)) return refused;
  Json::Value body;
  if (!BodyObject(req, &body)) return Failure(kBadMember, "the body must be a JSON object");
  const bool owner = req.DecodedPath() == "/tdocapi/v1/server/send-email";
  std::string problem = owner ? Problem(body, {"cVersionID", "cOwnerEmail"}, {})
                              : Problem(body, {"subject", "content", "fromEmail", "toEmail"}, {});
  if (!problem.empty()) return Failure(kBadMember, problem);
  Json::Value mail = body;
  mail["kind"] = owner ? "version" : "notification";
  mail["token"] = QueryParam(req, "access-token");
  mail["mailId"] = NextId("mail-");
  data_["mails"].append(mail);
  return Envelope(0, "", Json::Value(Json::arrayValue));
}

Reply ServiceModel::SignImage(const Request& req) {
  Reply refused;
  if (TokenRefused(req, &refused)) return refused;
  Json::Value body;
  if (!BodyObject(req, &body)) return Failure(kBadMember, "the body must be a JSON object");
  std::string problem = Problem(body, {"imageType", "content"}, {});
  if (!problem.empty()) return Failure(kBadMember, problem);
  Json::Value image(Json::objectValue);
  image["imageId"] = NextId("");
  image["token"] = QueryParam(req, "access-token");
  image["imageType"] = body["imageType"];
  image["content"] = body["content"];
  data_["images"].append(image);
  // `data` is the text where the image can be read back.
  return Envelope(0, "", req.listener + "/files/images/" + image["imageId"].asString());
}

Reply ServiceModel::OpenMessage(const Request& req) {
  const std::string app = QueryParam(req, "cAppID");
  const std::string id = QueryParam(req, "msgId");
  if (app.empty()) return Failure(kBadMember, "cAppID is missing");
  // Without an id: every open message of the application.
  Json::Value found(Json::arrayValue);
  for (const auto& msg : data_["messages"]) {
    if (Str(msg, "cAppID") == app && (id.empty() || Str(msg, "msgId") == id)) found.append(msg);
  }
  if (!id.empty() && found.empty()) return Failure(kNoSuchMessage, "no such message");
  return Envelope(0, "", found);
}

Reply ServiceModel::ServerTime(const Request&) {
  std::string text = data_["serverTime"].asString();
  if (text.empty()) {
    std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    char buf[32];
    std::strftime(buf, sizeof(buf), "%Y-%m-%d %H:%M:%S", &utc);
    text = buf;
  }
  Json::Value time(Json::objectValue);
  time["time"] = text;
  return One(time);
}

Reply ServiceModel::OptionConfig(const Request&) { return Envelope(0, "", data_["optionConfig"]); }

Reply ServiceModel::WrapperSettings(const Request& req) {
  Json::Value settings(Json::objectValue);
  const Json::Value& w = data_["wrappers"];
  for (const char* link : kWrapperLinks)
    settings[link] = ReplaceAll(Str(w, link), "{base}", req.listener);
  settings["updateTime"] = w["updateTime"];
  return Envelope(0, "", settings);
}

// Files for downloads, by the path after "/files/". "redirect/", "slow/MS/",
// "chunked/" and "status/CODE/" wrap the file that the rest of the path
// (again after "/files/") names, and nest.
Reply ServiceModel::File(const Request& req, const std::string& rest, int depth) {
  auto number_then = [&](const std::string& prefix, long lo, long hi, long* n,
                         std::string* tail) {
    if (rest.compare(0, prefix.size(), prefix) != 0) return false;
    size_t slash = rest.find('/', prefix.size());
    std::string digits = rest.substr(prefix.size(), slash == std::string::npos
                                                        ? std::string::npos
                                                        : slash - prefix.size());
    if (digits.empty() || digits.size() > 9 ||
        digits.find_first_not_of("0123456789") != std::string::npos)
      return false;
    *n = std::stol(digits);
    *tail = slash == std::string::npos ? "" : rest.substr(slash + 1);
    return *n >= lo && *n <= hi;
  };
  if (depth > 16) return Plain(400, "text/plain", "too many wrappers in the path\n");
  long n = 0;
  std::string tail;
  if (rest.compare(0, 9, "redirect/") == 0) {
    Reply r = Plain(302, "text/plain", "moved\n");
    r.headers.emplace_back("Location", req.listener + "/files/" + rest.substr(9));
    return r;
  }
  if (number_then("slow/", 1, kMaxPaceMs, &n, &tail)) {
    Reply r = File(req, tail, depth + 1);
    r.pace_ms = static_cast<int>(n);
    return r;
  }
  if (rest.compare(0, 8, "chunked/") == 0) {
    Reply r = File(req, rest.substr(8), depth + 1);
    r.chunked = true;
    return r;
  }
  if (number_then("status/", 200, 599, &n, &tail)) {
    Reply r = File(req, tail, depth + 1);
    r.status = static_cast<int>(n);
    return r;
  }
  if (number_then("bytes/", 0, kMaxPatternBytes, &n, &tail) && tail.empty())
    return Plain(200, "application/octet-stream", PatternBytes(static_cast<size_t>(n)));
  if (rest.compare(0, 7, "images/") == 0) {
    const Json::Value* image = FindIn("images", "imageId", rest.substr(7));
    if (image != nullptr) return Plain(200, "text/plain", Str(*image, "content"));
  }
  const std::string kPdf = ".pdf";
  if (rest.size() > kPdf.size() && rest.find('/') != std::string::npos &&
      rest.compare(rest.size() - kPdf.size(), kPdf.size(), kPdf) == 0) {
    const std::string name = rest.substr(rest.rfind('/') + 1);
    return Plain(200, "application/pdf",
                 MakePdf(name, "tdoc emulator, update " + Str(data_["wrappers"], "updateTime")));
  }
  return Plain(404, "text/plain", "no such file: /files/" + rest + "\n");
}

// ---- control -------------------------------------------------------------

bool ServiceModel::Control(const std::string& method, const std::string& what,
                           const Json::Value& in, Json::Value* out) {
  std::lock_guard<std::mutex> lock(mu_);
  bool handled = true, changed = false;
  // A call refused half-way leaves the model as it was.
  const Json::Value before = data_;
  Json::Value result;
  try {
    result = ControlLocked(method, what, in, &handled, &changed);
  } catch (...) {
    data_ = before;
    throw;
  }
  if (!handled) return false;
  if (changed) Save();
  *out = result;
  return true;
}

Json::Value ServiceModel::ControlLocked(const std::string& method, const std::string& what,
                                        const Json::Value& in, bool* handled, bool* changed) {
  const bool post = method == "POST";
  *changed = post;
  Json::Value out(Json::objectValue);
  auto list = [&](const char* name) {
    out[name] = data_[name];
    return out;
  };
  if (what == "model" && method == "GET") return data_;
  if (what == "users" && post) {
    for (Json::Value u : Records(in, "users")) {
      CheckUser(u);
      if (Str(u, "cUserID").empty()) u["cUserID"] = NextId("user-");
      Upsert(&data_["users"], "cUserID", u);
    }
    return list("users");
  }
  if (what == "documents" && post) {
    for (const Json::Value& d : Records(in, "documents")) {
      CheckDocument(d);
      Json::Value doc = d;
      if (!doc.isMember("isNotificationDoc"))
        doc["isNotificationDoc"] = !Str(d, "connectedNotification").empty();
      Upsert(&data_["documents"], "cDocID", doc);
    }
    return list("documents");
  }
  if (what == "versions" && post) {
    for (const Json::Value& v : Records(in, "versions")) {
      CheckVersion(v);
      if (FindIn("documents", "cDocID", Str(v, "cDocID")) == nullptr)
        throw BadInput("version " + Str(v, "cVersionID") + ": 'cDocID' names no document");
      Upsert(&data_["versions"], "cVersionID", v);
    }
    return list("versions");
  }
  if (what == "tickets" && post) {
    if (Str(in, "email").empty() || !(in["ticket"].isString() || in["ticket"].isObject()))
      throw BadInput("a ticket needs 'email' and 'ticket' (a text or an object)");
    data_["tickets"][in["email"].asString()] = in["ticket"];
    return out;
  }
  if (what == "tickets" && method == "GET") {
    out["tickets"] = data_["tickets"];
    return list("issuedTickets");
  }
  if (what == "third-users" && post) {
    NeedType(in, "appSecret", in["appSecret"].isString(), "a string");
    if (in.isMember("appSecret")) data_["appSecret"] = in["appSecret"];
    if (in.isMember("thirdToken")) {
      if (Str(in, "thirdToken").empty()) throw BadInput("'thirdToken' must be a non-empty string");
      NeedType(in, "cUserID", in["cUserID"].isString(), "a string");
      NeedType(in, "data", in["data"].isObject(), "an object");
      NeedType(in, "info", in["info"].isObject(), "an object");
      Json::Value third(Json::objectValue);
      for (const char* m : {"cUserID", "data", "info"}) {
        if (in.isMember(m)) third[m] = in[m];
      }
      data_["thirdUsers"][in["thirdToken"].asString()] = third;
    }
    return out;
  }
  if (what == "third-users" && method == "GET") {
    out["appSecret"] = data_["appSecret"];
    return list("thirdUsers");
  }
  if (what == "agreement" && post) {
    int64_t type = in.isMember("type") && in["type"].isIntegral() ? in["type"].asInt64() : -1;
    if ((in.isMember("type") && (type < 0 || type > INT32_MAX)) || !in["content"].isString())
      throw BadInput("an agreement needs 'content' (a text) and optionally 'type' (>= 0)");
    data_["agreements"][std::to_string(type < 0 ? 1 : type)] = in["content"];
    return out;
  }
  if (what == "messages" && post) {
    for (const Json::Value& msg : Records(in, "messages")) {
      CheckMessage(msg);
      // An id is one message whatever its application.
      Upsert(&data_["messages"], "msgId", msg);
    }
    return list("messages");
  }
  if (what == "server" && post) {
    NeedType(in, "time", in["time"].isString(), "a string (\"\": the clock)");
    if (in.isMember("time")) data_["serverTime"] = in["time"];
    if (in.isMember("optionConfig")) data_["optionConfig"] = in["optionConfig"];
  }
  if (what == "server") {
    out["time"] = data_["serverTime"];
    return list("optionConfig");
  }
  if (what == "wrappers" && post) {
    CheckWrappers(in);
    for (const char* m : kWrapperLinks) {
      if (in.isMember(m)) data_["wrappers"][m] = in[m];
    }
    if (in.isMember("updateTime")) data_["wrappers"]["updateTime"] = in["updateTime"];
  }
  if (what == "wrappers") return data_["wrappers"];
  *changed = false;
  if (method != "GET") {
    *handled = false;
    return out;
  }
  for (const char* name :
       {"users", "documents", "versions", "devices", "agreements", "usage", "mails", "images",
        "messages"}) {
    if (what == name) return list(name);
  }
  *handled = false;
  return out;
}

}  // namespace tpcsdk::emulator
