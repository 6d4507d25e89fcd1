// The client's identity and document operations, called through the client
// interface against tdoc-emulator: what goes on the wire, what the host gets back,
// the refusals that send nothing, and the log lines.
#include <gtest/gtest.h>
#include <json/json.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "kit/emulator_client.h"
#include "kit/testkit.h"
#include "platform/diagnostic_log.h"
#include "support/out_buffer.h"
#include "support/utf.h"
#include "tpcsdk/ITetherdocServer.h"
#include "web_service/tetherdoc_server.h"

namespace {

using tpcsdk::Utf16ToUtf8;
using tpcsdk::Utf8ToUtf16;

// Wide literals for the host's records, whatever the platform's wide type.
struct W {
  explicit W(const char* s) : text(Utf8ToUtf16(s)) {}
  operator TDC_LPCWSTR() const { return reinterpret_cast<TDC_LPCWSTR>(text.c_str()); }
  std::u16string text;
};

// Out pointers start at these, so a test sees whether a slot wrote them.
char g_textSentinel[1];
TDC_WCHAR g_wideSentinel[1];

std::string Take(char* block) {
  std::string s = block ? block : "";
  TDC_ReleaseLPSTR(block);
  return s;
}
std::string TakeWide(TDC_LPWSTR block) {
  std::string s = Utf16ToUtf8(tpcsdk::WideArg(block));
  TDC_ReleaseLPWSTR(block);
  return s;
}

// The query as the service reads it: the transport escapes blanks and braces again
// on its way out (only the ticket's query goes byte for byte).
std::string Decoded(const std::string& q) {
  std::string out;
  for (size_t i = 0; i < q.size(); ++i) {
    if (q[i] == '%' && i + 2 < q.size()) {
      out += static_cast<char>(std::stoi(q.substr(i + 1, 2), nullptr, 16));
      i += 2;
    } else {
      out += q[i];
    }
  }
  return out;
}

Json::Value Parse(const std::string& text) {
  Json::Value v;
  EXPECT_TRUE(Json::Reader().parse(text, v)) << text;
  return v;
}

class Ops : public ::testing::Test {
 protected:
  void SetUp() override {
    appdata_ = std::make_unique<testkit::ScopedEnv>("TPCSDK_APPDATA_DIR", dir_.path().string());
    ASSERT_TRUE(log_.OpenPath((dir_.path() / "ops.log").u16string()));
  }

  // A ready client of emu (its directory changed by `change` first), the request log
  // cleared, the stored token set.
  ITetherdocServer* Start(testkit::EmulatorClient* emu,
                          const Json::Value& change = Json::Value()) {
    emu_ = emu;
    if (!change.isNull()) {
      EXPECT_TRUE(emu->SetDirectory(change)) << emu->last_error();
    }
    client_ = std::make_unique<tpcsdk::TetherdocServer>("en-US", "My App", "12.1");
    EXPECT_EQ(client_->InitApi(Utf8ToUtf16(emu->base_url()).c_str()), TDC_HRESULT_OK);
    client_->SetLog(&log_);
    ITetherdocServer* api = client_.get();
    EXPECT_EQ(api->SetAccessToken(W("stored-token")), TDC_HRESULT_OK);
    EXPECT_TRUE(emu->ClearLog());
    return api;
  }
  std::vector<testkit::LoggedRequest> Sent() { return emu_->Requests(); }
  void Reply(const std::string& method, const std::string& path, int status,
             const std::string& body) {
    ASSERT_NE(emu_->Script(testkit::BodyRule(method, path, status, body, -1)), 0u)
        << emu_->last_error();
  }
  std::string LogText() { return testkit::ReadFile(dir_.path() / "ops.log"); }

  testkit::TempDir dir_;
  std::unique_ptr<testkit::ScopedEnv> appdata_;
  tpcsdk::DiagnosticLog log_;
  std::unique_ptr<tpcsdk::TetherdocServer> client_;
  testkit::EmulatorClient* emu_ = nullptr;
};

// Records with every field set, and the wide texts they point at.
struct Records {
  W app{"app-1"}, doc{"doc-1"}, name{"Report \xC3\xA9t\xC3\xA9.pdf"}, created{"2026-11-23 10:00:00"},
      modified{"2026-11-23 11:00:00"}, version{"ver-1"}, path{"C:\\docs\\r.pdf"}, empty{""};
  TDC_DOC_INFO docInfo{app, doc, name, created, modified, nullptr, nullptr, nullptr, nullptr, nullptr};
  TDC_VERSION_INFO versionInfo{app,     doc,     version, name, nullptr, nullptr,
                               created, nullptr, nullptr, -5,   3};
  TDC_TDOC_INFO tdocInfo{app,     doc,     name,    created, modified, nullptr, nullptr, nullptr,
                         nullptr, nullptr, version, path,    nullptr,  nullptr, 1024,    7};
  W start{"2026-11-23 12:00:00"}, opType{"edit"}, op{"save"}, operands{"{\"page\": 3}"};
  TDC_USER_LOG usage{app,    doc,  version, nullptr, start,   opType, op,
                     operands, name, nullptr, nullptr, nullptr, 2};
  W type{"desktop"};
  TDC_DEVICE_INFO device{type, type, type, type, type, type, type, type, type, type};
};

// ---- refusals: each sends nothing and leaves the out pointers alone ---------------

struct Refusal {
  const char* name;
  std::function<int(ITetherdocServer*, Records&, char**, int32_t*)> call;
  int expected;
};

class Refusals : public Ops, public ::testing::WithParamInterface<Refusal> {};

TEST_P(Refusals, SendNothing) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  ITetherdocServer* api = Start(emu);
  Records r;
  char* out = g_textSentinel;
  int32_t flag = 77;
  EXPECT_EQ(GetParam().call(api, r, &out, &flag), GetParam().expected);
  EXPECT_EQ(out, g_textSentinel);
  EXPECT_TRUE(Sent().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Operations, Refusals,
    ::testing::Values(
        Refusal{"CheckUserTokenEmpty", [](auto* a, auto&, auto, auto* f) { return a->CheckUserToken("", f); }, -2},
        Refusal{"CheckUserTokenNull", [](auto* a, auto&, auto, auto* f) { return a->CheckUserToken(nullptr, f); }, -2},
        Refusal{"GetEmailEmpty", [](auto* a, auto&, auto o, auto*) { return a->GetEmail("", o); }, -2},
        Refusal{"GetEmailNullOut", [](auto* a, auto&, auto, auto*) { return a->GetEmail("t", nullptr); }, -2},
        Refusal{"OnlineNullFlag", [](auto* a, auto&, auto, auto*) { return a->isUserOnLine("a@b", nullptr); }, -2},
        Refusal{"DeviceNullField", [](auto* a, auto& r, auto o, auto*) { r.device.mac = nullptr; return a->GetUserDeviceInfo(&r.device, o); }, -2},
        Refusal{"DeviceNullRecord", [](auto* a, auto&, auto o, auto*) { return a->GetUserDeviceInfo(nullptr, o); }, -2},
        Refusal{"CasTicketNullValue", [](auto* a, auto&, auto o, auto*) { return a->GetCasTicket("a", nullptr, "c", o); }, -2},
        Refusal{"ThirdUserNullBase", [](auto* a, auto& r, auto o, auto* f) { return a->GetThirdUser(nullptr, r.app, o, f); }, -2},
        Refusal{"DocInfoEmptyName", [](auto* a, auto& r, auto, auto*) { r.docInfo.docName = r.empty; return a->UploadDocInfo(&r.docInfo); }, 4},
        Refusal{"DocInfoNullRequired", [](auto* a, auto& r, auto, auto*) { r.docInfo.cDocID = nullptr; return a->UploadDocInfo(&r.docInfo); }, -2},
        Refusal{"DocInfoNullRecord", [](auto* a, auto&, auto, auto*) { return a->UploadDocInfo(nullptr); }, -2},
        Refusal{"VersionPageCountZero", [](auto* a, auto& r, auto, auto*) { r.versionInfo.docPageCount = 0; return a->UploadVersionInfo(&r.versionInfo); }, 4},
        Refusal{"VersionEmptyId", [](auto* a, auto& r, auto, auto*) { r.versionInfo.cVersionID = r.empty; return a->UploadVersionInfo(&r.versionInfo); }, 4},
        Refusal{"TdocNullPath", [](auto* a, auto& r, auto, auto*) { r.tdocInfo.docPath = nullptr; return a->UpLoadTDOC(&r.tdocInfo); }, -2},
        Refusal{"TdocEmptyModified", [](auto* a, auto& r, auto, auto*) { r.tdocInfo.modifiedTime = r.empty; return a->UpLoadTDOC(&r.tdocInfo); }, 4},
        Refusal{"TdocPageCountZero", [](auto* a, auto& r, auto, auto*) { r.tdocInfo.docPageCount = 0; return a->UpLoadTDOC(&r.tdocInfo); }, 4},
        Refusal{"DeleteNullToken", [](auto* a, auto&, auto, auto*) { return a->DeleteDocVersion(nullptr, "v"); }, -2},
        Refusal{"DeleteEmptyVersion", [](auto* a, auto&, auto, auto*) { return a->DeleteDocVersion("t", ""); }, -2},
        Refusal{"ModifyNullJson", [](auto* a, auto&, auto, auto*) { return a->ModifyDocVersion("t", nullptr); }, -2},
        Refusal{"OwnerIdEmpty", [](auto* a, auto&, auto o, auto*) { return a->GetDocOwnerID("", o); }, -2},
        Refusal{"OwnerIdNull", [](auto* a, auto&, auto o, auto*) { return a->GetDocOwnerID(nullptr, o); }, -2},
        Refusal{"UsageEmptyOperator", [](auto* a, auto& r, auto, auto*) { r.usage.operator_ = r.empty; return a->UpLoadUserLogger(&r.usage); }, 4},
        Refusal{"UsageNullRequired", [](auto* a, auto& r, auto, auto*) { r.usage.startTime = nullptr; return a->UpLoadUserLogger(&r.usage); }, -2},
        Refusal{"SendEmailEmptyVersion", [](auto* a, auto&, auto, auto*) { return a->UpdateNotificationSendEmail("t", "", "o@x"); }, -2},
        Refusal{"NotifyEmptySubject", [](auto* a, auto& r, auto, auto*) { return a->SendEmailNotification("t", r.empty, r.name, r.name, r.name); }, -2},
        Refusal{"ImageEmptyToken", [](auto* a, auto&, auto o, auto*) { return a->UploadImage("", "png", "AAAA", o); }, -2},
        Refusal{"ImageEmptyContent", [](auto* a, auto&, auto o, auto*) { return a->UploadImage("t", "png", "", o); }, -2},
        Refusal{"OpenMessageEmptyFirst", [](auto* a, auto&, auto o, auto*) { return a->GetOpenMessage("m", "", o); }, -2},
        Refusal{"LanguageEmpty", [](auto* a, auto&, auto, auto*) { return a->SetClientLanguage(""); }, -2},
        Refusal{"OwnerEmailEmpty", [](auto* a, auto&, auto o, auto*) {
          TDC_LPWSTR name = g_wideSentinel;
          return a->GetOwnerEmail(nullptr, "", o, &name, o);
        }, -2}),
    [](const auto& info) { return std::string(info.param.name); });

// A directory that lacks a key, or whose URL lacks the token placeholder.
TEST_F(Ops, MissingUrlsAndPlaceholdersRefuseWithoutSending) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  Json::Value change;
  for (const char* key : {"tdc_users", "tdc_documents", "tdc_documents_tdoc", "tdc_server_client_id",
                          "tdc_cas_ticket_by_email", "tdc_users_online_state"})
    change["remove"].append(key);
  change["set"]["tdc_documents_versions"] = "{base}/tdocapi/v1/documents/versions";
  ITetherdocServer* api = Start(emu, change);
  Records r;
  char* out = g_textSentinel;
  int32_t flag = 77;
  EXPECT_EQ(api->CheckUserToken("t", &flag), TDC_HRESULT_NO_URL);
  EXPECT_EQ(api->CheckUserToken("", &flag), TDC_HRESULT_NO_URL);  // the URL is looked at first
  EXPECT_EQ(api->GetEmail("t", &out), -2);
  EXPECT_EQ(api->isUserOnLine("a@b", &flag), -2);
  EXPECT_EQ(flag, 0);  // written before the URL is looked at
  EXPECT_EQ(api->GetUserDeviceInfo(&r.device, &out), -2);
  EXPECT_EQ(api->GetCasTicket("a", "b", "c", &out), -2);
  EXPECT_EQ(api->UploadDocInfo(&r.docInfo), -2);
  EXPECT_EQ(api->UpLoadTDOC(&r.tdocInfo), -2);
  EXPECT_EQ(api->GetDocOwnerID("doc-1", &out), -2);
  EXPECT_EQ(api->DeleteDocVersion("t", "v"), -2);
  EXPECT_EQ(api->ModifyDocVersion("t", "{}"), -2);
  EXPECT_EQ(out, g_textSentinel);
  EXPECT_TRUE(Sent().empty());
  const std::string log = LogText();
  EXPECT_NE(log.find("UploadDocInfo. url is empty"), std::string::npos) << log;
}

TEST_F(Ops, RefusedUploadsLogTheirValues) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  ITetherdocServer* api = Start(emu);
  Records r;
  r.docInfo.docName = r.empty;
  EXPECT_EQ(api->UploadDocInfo(&r.docInfo), 4);
  r.versionInfo.docPageCount = 0;
  EXPECT_EQ(api->UploadVersionInfo(&r.versionInfo), 4);
  EXPECT_EQ(api->ModifyDocVersion("tok", "{\"a\":1}"), 9);  // the service knows no such token
  const std::string log = LogText();
  for (const char* line :
       {"UploadDocInfo. parameter is empty, cAppID:app-1 cDocID:doc-1 createTime:2026-11-23 "
        "10:00:00 docName: modifiedTime:2026-11-23 11:00:00",
        "UploadVersionInfo. parameter is empty, cAppID:app-1 cDocID:doc-1 cVersionID:ver-1 "
        "createTime2026-11-23 10:00:00 docNameReport \xC3\xA9t\xC3\xA9.pdf",
        "ModifyDocVersion lpsUserToken:tok lpsJson:{\"a\":1},"})
    EXPECT_NE(log.find(line), std::string::npos) << line << "\n" << log;
}

// ---- on the wire ------------------------------------------------------------------

struct WireCase {
  const char* name;
  std::function<void(ITetherdocServer*, Records&)> call;
  const char* method;
  const char* path;   // decoded path
  const char* query;  // query, "-" for none; decoded but for the ticket's raw one
  const char* body;   // the exact body; "" for none
};

class OnTheWire : public Ops, public ::testing::WithParamInterface<WireCase> {};

TEST_P(OnTheWire, MethodTargetAndBody) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  ITetherdocServer* api = Start(emu);
  Records r;
  GetParam().call(api, r);
  const auto sent = Sent();
  ASSERT_EQ(sent.size(), 1u);
  const testkit::LoggedRequest& q = sent[0];
  EXPECT_EQ(q.method, GetParam().method);
  EXPECT_EQ(q.path, GetParam().path);
  const std::string query = GetParam().query;
  EXPECT_EQ(q.has_query, query != "-");
  if (query != "-") {
    EXPECT_EQ(q.path == "/tdocapi/v1/users/get-cas-ticket" ? q.query : Decoded(q.query), query);
  }
  EXPECT_EQ(q.body, GetParam().body);
  EXPECT_EQ(q.Header("Content-type"), "application/json");
  EXPECT_EQ(q.Header("X-tetherdoc-UA"), "al(en-US);cv(2.0.0.0);an(My App);av(12.1)");
}

INSTANTIATE_TEST_SUITE_P(
    Operations, OnTheWire,
    ::testing::Values(
        // Optional members left out go as empty strings; members sorted by key; the
        // name's accented letters as the compact writer escapes them.
        WireCase{"UploadDocInfo", [](auto* a, auto& r) { a->UploadDocInfo(&r.docInfo); }, "POST",
                 "/tdocapi/v1/documents", "-",
                 "{\"cAppID\":\"app-1\",\"cDocID\":\"doc-1\",\"cUserID\":\"\",\"connectedNotification\":\"\","
                 "\"createTime\":\"2026-11-23 10:00:00\",\"docName\":\"Report \\u00e9t\\u00e9.pdf\","
                 "\"modifiedTime\":\"2026-11-23 11:00:00\",\"originalAuthor\":\"\","
                 "\"originalFilename\":\"\",\"parentID\":\"\"}\n"},
        // Stored as it is: the placeholder goes out unfilled.
        WireCase{"UploadVersionInfo", [](auto* a, auto& r) { a->UploadVersionInfo(&r.versionInfo); },
                 "POST", "/tdocapi/v1/documents/versions", "access-token=${access-token}",
                 "{\"cAppID\":\"app-1\",\"cDocID\":\"doc-1\",\"cUserID\":\"\",\"cVersionID\":\"ver-1\","
                 "\"createTime\":\"2026-11-23 10:00:00\",\"docName\":\"Report \\u00e9t\\u00e9.pdf\","
                 "\"docPageCount\":3,\"docPath\":\"\",\"docSize\":-5,\"docURI\":\"\",\"parentID\":\"\"}\n"},
        WireCase{"UpLoadTDOC", [](auto* a, auto& r) { a->UpLoadTDOC(&r.tdocInfo); }, "POST",
                 "/tdocapi/v1/documents/tdoc", "access-token=stored-token",
                 "{\"cAppID\":\"app-1\",\"cDocID\":\"doc-1\",\"cUserID\":\"\",\"cVersionID\":\"ver-1\","
                 "\"connectedNotification\":\"\",\"createTime\":\"2026-11-23 10:00:00\","
                 "\"docName\":\"Report \\u00e9t\\u00e9.pdf\",\"docPageCount\":7,"
                 "\"docPath\":\"C:\\\\docs\\\\r.pdf\",\"docSize\":1024,\"docURI\":\"\","
                 "\"modifiedTime\":\"2026-11-23 11:00:00\",\"originalAuthor\":\"\","
                 "\"originalFilename\":\"\",\"parentID\":\"\",\"parentVersionID\":\"\"}\n"},
        WireCase{"ModifyDocVersion", [](auto* a, auto&) { a->ModifyDocVersion("tok", "{ \"x\" : 1 }"); },
                 "PUT", "/tdocapi/v1/documents/versions", "access-token=tok", "{ \"x\" : 1 }"},
        WireCase{"DeleteDocVersion", [](auto* a, auto&) { a->DeleteDocVersion("tok", "ver-9"); },
                 "DELETE", "/tdocapi/v1/documents/versions", "access-token=tok",
                 "{\"cVersionID\":\"ver-9\"}\n"},
        WireCase{"GetDocOwnerID", [](auto* a, auto&) { char* o = nullptr; a->GetDocOwnerID("d 1", &o); },
                 "GET", "/tdocapi/v1/documents", "cDocID=d 1", ""},
        WireCase{"CheckUserToken", [](auto* a, auto&) { int32_t v; a->CheckUserToken("user-tok", &v); },
                 "GET", "/tdocapi/v1/users", "access-token=user-tok", ""},
        WireCase{"IsUserOnLine", [](auto* a, auto&) { int32_t v; a->isUserOnLine("ann@example.com", &v); },
                 "GET", "/tdocapi/v1/users/online-state",
                 "access-token=stored-token&userEmail=ann@example.com", ""},
        WireCase{"GetUserDeviceInfo", [](auto* a, auto& r) { char* o = nullptr; a->GetUserDeviceInfo(&r.device, &o); TDC_ReleaseLPSTR(o); },
                 "POST", "/tdocapi/v1/server/client-id", "-",
                 "{\"deviceModel\":\"desktop\",\"deviceName\":\"desktop\",\"mac\":\"desktop\","
                 "\"mobileDeviceId\":\"desktop\",\"os\":\"desktop\",\"productLanguage\":\"desktop\","
                 "\"productName\":\"desktop\",\"productVendor\":\"desktop\",\"productVersion\":\"desktop\","
                 "\"type\":\"desktop\"}\n"},
        // The operands text nests as an object; isCreview goes as given.
        WireCase{"UpLoadUserLogger", [](auto* a, auto& r) { a->UpLoadUserLogger(&r.usage); }, "POST",
                 "/tdocapi/v1/documents/logs", "-",
                 "{\"cAppID\":\"app-1\",\"cDocID\":\"doc-1\",\"cUserID\":\"\",\"cVersionID\":\"ver-1\","
                 "\"docName\":\"Report \\u00e9t\\u00e9.pdf\",\"docPath\":\"\",\"docURI\":\"\",\"isCreview\":2,"
                 "\"operands\":{\"page\":3},\"operator\":\"save\",\"operatorType\":\"edit\","
                 "\"reviewSessionID\":\"\",\"startTime\":\"2026-11-23 12:00:00\"}\n"},
        WireCase{"UpdateNotificationSendEmail", [](auto* a, auto&) { a->UpdateNotificationSendEmail("tok", "v-1", "o@x"); },
                 "POST", "/tdocapi/v1/server/send-email", "access-token=tok",
                 "{\"cOwnerEmail\":\"o@x\",\"cVersionID\":\"v-1\"}\n"},
        WireCase{"SendEmailNotification", [](auto* a, auto& r) { a->SendEmailNotification("tok", r.name, r.doc, r.app, r.version); },
                 "POST", "/tdocapi/v1/notifications/email", "access-token=tok",
                 "{\"content\":\"doc-1\",\"fromEmail\":\"app-1\",\"subject\":\"Report \\u00e9t\\u00e9.pdf\","
                 "\"toEmail\":\"ver-1\"}\n"},
        WireCase{"UploadImage", [](auto* a, auto&) { char* o = nullptr; a->UploadImage("tok", "png", "iVBOR", &o); TDC_ReleaseLPSTR(o); },
                 "POST", "/tdocapi/v1/users/sign-image", "access-token=tok",
                 "{\"content\":\"iVBOR\",\"imageType\":\"png\"}\n"},
        // The second argument fills the first placeholder.
        WireCase{"GetOpenMessage", [](auto* a, auto&) { char* o = nullptr; a->GetOpenMessage("msg-1", "app-1", &o); TDC_ReleaseLPSTR(o); },
                 "GET", "/tdocapi/v1/messages/open-message", "cAppID=app-1&msgId=msg-1", ""},
        WireCase{"GetServerOptionConfig", [](auto* a, auto&) { char* o = nullptr; a->GetServerOptionConfig(&o); TDC_ReleaseLPSTR(o); },
                 "GET", "/tdocapi/v1/server/option-config", "-", ""},
        // Only the third value is escaped, and the escape survives the URL split.
        WireCase{"GetCasTicket", [](auto* a, auto&) { char* o = nullptr; a->GetCasTicket("app", "svc", "ann+b@x.com/\xC3\xA9", &o); TDC_ReleaseLPSTR(o); },
                 "GET", "/tdocapi/v1/users/get-cas-ticket",
                 "service=svc&email=ann+b%40x.com%2F%C3%A9&appId=app", ""}),
    [](const auto& info) { return std::string(info.param.name); });

// The fixed paths under a host's base URL, with the third-user body.
TEST_F(Ops, ThirdUserPathsAndBody) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  ITetherdocServer* api = Start(emu);
  const std::string base = emu->base_url();
  char* out = nullptr;
  int32_t done = 7;
  api->GetThirdUser(base.c_str(), W("third \xE2\x82\xAC"), &out, &done);
  TDC_ReleaseLPSTR(out);
  out = nullptr;
  api->GetThirdUserInfo(base.c_str(), W("t2"), &out);
  TDC_ReleaseLPSTR(out);
  out = nullptr;
  api->GetAgreement(base.c_str(), &out);
  TDC_ReleaseLPSTR(out);
  const auto sent = Sent();
  ASSERT_EQ(sent.size(), 3u);
  EXPECT_EQ(sent[0].method + " " + sent[0].target, "POST /tdocapi/v2/users/third-user");
  const Json::Value body = Parse(sent[0].body);
  EXPECT_EQ(body["thirdToken"].asString(), "third \xE2\x82\xAC");
  EXPECT_EQ(body["appName"].asString(), "tarvoCN");
  EXPECT_EQ(body["appSecret"].asString().size(), 8u);
  EXPECT_TRUE(body["type"].isInt());
  EXPECT_EQ(body["type"].asInt(), 1);
  EXPECT_EQ(sent[1].method + " " + sent[1].target, "POST /tdocapi/v2/users/third-user-info");
  EXPECT_EQ(sent[2].method + " " + sent[2].target, "GET /tdocapi/v2/server/agreement?type=1");
  EXPECT_EQ(sent[2].body, "");
}

// ---- what the host gets back ------------------------------------------------------

struct ReplyCase {
  int status;
  const char* body;
  int expected;
  const char* out;  // what the out buffer holds afterwards; nullptr: left alone
};

using Call = std::function<int(ITetherdocServer*, char**)>;

// Runs call once per case, each against a reply scripted on method and path.
void RunReplyTable(testkit::EmulatorClient* emu, ITetherdocServer* api, const char* method,
                   const char* path, const Call& call, std::initializer_list<ReplyCase> cases) {
  for (const ReplyCase& c : cases) {
    SCOPED_TRACE(std::to_string(c.status) + " " + c.body);
    emu->Reset();
    ASSERT_NE(emu->Script(testkit::BodyRule(method, path, c.status, c.body)), 0u);
    char* out = g_textSentinel;
    EXPECT_EQ(call(api, &out), c.expected);
    if (c.out) {
      ASSERT_NE(out, g_textSentinel);
      EXPECT_EQ(Take(out), c.out);
    } else {
      EXPECT_EQ(out, g_textSentinel);
    }
  }
}

TEST_F(Ops, UploadsMapTheirOwnRetSets) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  ITetherdocServer* api = Start(emu);
  Records r;
  const Call doc = [&](ITetherdocServer* a, char**) { return a->UploadDocInfo(&r.docInfo); };
  const Call ver = [&](ITetherdocServer* a, char**) { return a->UploadVersionInfo(&r.versionInfo); };
  const Call tdoc = [&](ITetherdocServer* a, char**) { return a->UpLoadTDOC(&r.tdocInfo); };
  RunReplyTable(emu, api, "POST", "/tdocapi/v1/documents", doc,
                {{200, "{}", 0, nullptr},
                 {200, R"({"ret":110003})", 4, nullptr},
                 {200, R"({"ret":110005})", 4, nullptr},
                 {200, R"({"ret":110002})", 6, nullptr},
                 {200, R"({"ret":110013})", 6, nullptr},
                 {200, R"({"ret":210007})", 9, nullptr},
                 {200, "not json", 6, nullptr},
                 {403, R"({"ret":0})", 4, nullptr},
                 {500, R"({"ret":110001})", 3, nullptr}});
  RunReplyTable(emu, api, "POST", "/tdocapi/v1/documents/versions", ver,
                {{200, R"({"ret":110002})", 4, nullptr},
                 {200, R"({"ret":110013})", 4, nullptr},
                 {200, R"({"ret":110004})", 6, nullptr},
                 {403, "denied", 4, nullptr},
                 {201, "{}", 3, nullptr}});
  RunReplyTable(emu, api, "POST", "/tdocapi/v1/documents/tdoc", tdoc,
                {{200, R"({"ret":110004})", 4, nullptr},
                 {200, R"({"ret":110013})", 6, nullptr},
                 {200, R"({"ret":0,"data":[]})", 0, nullptr}});
}

TEST_F(Ops, DocumentLookUpsAnswerWithTheServicesRet) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  ITetherdocServer* api = Start(emu);
  const Call owner = [](ITetherdocServer* a, char** o) { return a->GetDocOwnerID("doc-1", o); };
  RunReplyTable(emu, api, "GET", "/tdocapi/v1/documents", owner,
                {{200, R"({"ret":0,"data":[{"cUserID":"u-7","isNotificationDoc":true}]})", 0, "u-7"},
                 {200, R"({"ret":5})", 5, nullptr},
                 {200, R"({"ret":210007,"data":[]})", 210007, nullptr},
                 {200, R"({"ret":"odd"})", 6, nullptr},
                 {200, R"({"ret":0,"data":[{"cUserID":""}]})", -2, nullptr},
                 {200, R"({"ret":0,"data":{"cUserID":"u"}})", -2, nullptr},
                 {200, R"({"ret":0,"data":["u"]})", -2, nullptr},
                 {200, "[]", 6, nullptr},
                 {403, R"({"ret":7})", 4, nullptr},
                 {404, "missing", 3, nullptr}});
  const Call modify = [](ITetherdocServer* a, char**) { return a->ModifyDocVersion("t", "{}"); };
  RunReplyTable(emu, api, "PUT", "/tdocapi/v1/documents/versions", modify,
                {{200, R"({"ret":110001})", 6, nullptr}, {403, "denied", 4, nullptr}, {200, "{}", 0, nullptr}});
  const Call remove = [](ITetherdocServer* a, char**) { return a->DeleteDocVersion("t", "v"); };
  RunReplyTable(emu, api, "DELETE", "/tdocapi/v1/documents/versions", remove,
                {{200, R"({"ret":210007})", 9, nullptr}, {200, R"({"ret":0})", 0, nullptr}});
}

TEST_F(Ops, OwnerEmailJoinsTheOwnersName) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  ITetherdocServer* api = Start(emu);
  struct Case {
    const char* user;  // element 0 of the user reply's data
    const char* email;
    const char* name;
    const char* mobile;
  } cases[] = {
      {R"({"userEmail":"ann@x","firstname":"Ann","lastname":"Smith","userMobile":"555"})", "ann@x",
       "Ann Smith", "555"},
      {R"({"lastname":"Smith"})", nullptr, "Smith", nullptr},
      {R"({"firstname":"\u00c5sa"})", nullptr, "\xC3\x85sa", nullptr},
      {R"({"userEmail":"e@x"})", "e@x", "", nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.user);
    emu->Reset();
    Reply("GET", "/tdocapi/v1/documents", 200, R"({"ret":0,"data":[{"cUserID":"u 1"}]})");
    Reply("GET", "/tdocapi/v1/users", 200, std::string(R"({"ret":0,"data":[)") + c.user + "]}");
    char* email = g_textSentinel;
    char* mobile = g_textSentinel;
    TDC_LPWSTR name = g_wideSentinel;
    ASSERT_EQ(api->GetOwnerEmail(nullptr, "doc-1", &email, &name, &mobile), 0);
    ASSERT_NE(name, g_wideSentinel);
    EXPECT_EQ(TakeWide(name), c.name);
    EXPECT_EQ(c.email ? Take(email) : "", c.email ? c.email : "");
    EXPECT_EQ(c.email != nullptr, email != g_textSentinel);
    EXPECT_EQ(c.mobile ? Take(mobile) : "", c.mobile ? c.mobile : "");
    EXPECT_EQ(c.mobile != nullptr, mobile != g_textSentinel);
    const auto sent = Sent();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(Decoded(sent[1].query), "cUserID=u 1");  // the owner by id, never by token
  }
  // A user look-up that fails is -2, whatever the frame said.
  emu->Reset();
  Reply("GET", "/tdocapi/v1/documents", 200, R"({"ret":0,"data":[{"cUserID":"u"}]})");
  Reply("GET", "/tdocapi/v1/users", 403, "denied");
  char* email = g_textSentinel;
  TDC_LPWSTR name = g_wideSentinel;
  EXPECT_EQ(api->GetOwnerEmail(nullptr, "doc-1", &email, &name, &email), -2);
  EXPECT_EQ(name, g_wideSentinel);
}

TEST_F(Ops, UserLookUpsFailAsMinusTwo) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  ITetherdocServer* api = Start(emu);
  const Call email = [](ITetherdocServer* a, char** o) { return a->GetEmail("tok", o); };
  RunReplyTable(emu, api, "GET", "/tdocapi/v1/users", email,
                {{200, R"({"ret":0,"data":[{"userEmail":"ann@x"}]})", 0, "ann@x"},
                 {200, R"({"ret":0,"data":[{"userMobile":"5"}]})", 0, ""},
                 {200, R"({"ret":0,"data":[]})", -2, nullptr},
                 {200, R"({"ret":210007})", -2, nullptr},
                 {403, "denied", -2, nullptr},
                 {500, "oops", -2, nullptr}});
  // The validity flag: set on success only, 1 when an e-mail or a mobile is known.
  const Call check = [](ITetherdocServer* a, char** o) {
    int32_t valid = 9;
    const int rc = a->CheckUserToken("tok", &valid);
    *o = rc == 0 || valid != 9 ? tpcsdk::NewTextBlock(std::to_string(valid)) : *o;
    return rc;
  };
  RunReplyTable(emu, api, "GET", "/tdocapi/v1/users", check,
                {{200, R"({"ret":0,"data":[{"userMobile":"5"}]})", 0, "1"},
                 {200, R"({"ret":0,"data":[{"userEmail":"e"}]})", 0, "1"},
                 {200, R"({"ret":0,"data":[{"token":"t"}]})", 0, "0"},
                 {403, "denied", -2, nullptr}});
}

TEST_F(Ops, OnlineStateDeviceAndTicket) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  ITetherdocServer* api = Start(emu);
  const Call online = [](ITetherdocServer* a, char** o) {
    int32_t flag = 9;
    const int rc = a->isUserOnLine("a@b", &flag);
    *o = tpcsdk::NewTextBlock(std::to_string(flag));  // the flag is always written
    return rc;
  };
  RunReplyTable(emu, api, "GET", "/tdocapi/v1/users/online-state", online,
                {{200, R"({"data":[{"cState":1}]})", 0, "1"},
                 {200, R"({"data":[{"cState":2}]})", 0, "0"},
                 {200, R"({"data":{"cState":1}})", -2, "0"},
                 {200, R"({"ret":210007})", 9, "0"},
                 {403, "denied", 4, "0"}});
  Records r;
  const Call device = [&](ITetherdocServer* a, char** o) { return a->GetUserDeviceInfo(&r.device, o); };
  RunReplyTable(emu, api, "POST", "/tdocapi/v1/server/client-id", device,
                {{200, R"({"ret":0,"data":[{"clientId":"c-1","n":2}]})", 0, "{\"clientId\":\"c-1\",\"n\":2}\n"},
                 {200, R"({"ret":0,"data":[]})", 0, "null\n"},
                 {200, R"({"ret":0,"data":{}})", -2, nullptr},
                 {500, "oops", 3, nullptr}});
  const Call ticket = [](ITetherdocServer* a, char** o) { return a->GetCasTicket("a", "b", "c", o); };
  RunReplyTable(emu, api, "GET", "/tdocapi/v1/users/get-cas-ticket", ticket,
                {{200, R"({"data":{"ticket":"ST-1"}})", 0, "ST-1"},
                 {200, R"({"data":{"ticket":{"st":"ST-2"}}})", 0, "ST-2"},
                 {200, R"({"data":{"ticket":5}})", 0, ""},
                 {200, R"({"data":[1]})", 0, ""},
                 {200, R"({"ret":3})", -2, nullptr},
                 {403, "denied", -2, nullptr}});
}

TEST_F(Ops, ThirdUserDecidesByCodeAndTheOthersAlwaysFail) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  ITetherdocServer* api = Start(emu);
  const std::string base = emu->base_url();
  const Call third = [&](ITetherdocServer* a, char** o) {
    int32_t done = 9;
    const int rc = a->GetThirdUser(base.c_str(), W("t"), o, &done);
    EXPECT_EQ(done, rc == 0 ? 1 : 0);
    return rc;
  };
  RunReplyTable(emu, api, "POST", "/tdocapi/v2/users/third-user", third,
                {{200, R"({"code":100000,"data":{"id":"u"}})", 0, "{\"id\":\"u\"}\n"},
                 {200, R"({"code":100001,"data":{"id":"u"}})", -2, nullptr},
                 {200, R"({"ret":0})", -2, nullptr},
                 {500, "oops", -2, nullptr}});
  const Call info = [&](ITetherdocServer* a, char** o) { return a->GetThirdUserInfo(base.c_str(), W("t"), o); };
  RunReplyTable(emu, api, "POST", "/tdocapi/v2/users/third-user-info", info,
                {{200, R"({"code":1,"data":{"x":1}})", -2, "{\"code\":1,\"data\":{\"x\":1}}\n"},
                 {403, "denied", -2, nullptr}});
  const Call agreement = [&](ITetherdocServer* a, char** o) { return a->GetAgreement(base.c_str(), o); };
  RunReplyTable(emu, api, "GET", "/tdocapi/v2/server/agreement", agreement,
                {{200, R"({"data":"terms"})", -2, "{\"data\":\"terms\"}\n"},
                 {200, R"({"ret":1})", -2, nullptr}});
}

}  // namespace

namespace {

TEST_F(Ops, UsageRecordsOperandsAndRetSet) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  ITetherdocServer* api = Start(emu);
  // Operands that are not an object travel as an empty string, and the call goes on.
  Reply("POST", "/tdocapi/v1/documents/logs", 200, R"({"ret":0})");
  ASSERT_TRUE(emu->ClearLog());
  Records r;
  W array("[1,2]"), broken("{\"a\":"), number("5");
  for (TDC_LPCWSTR operands : {static_cast<TDC_LPCWSTR>(array), static_cast<TDC_LPCWSTR>(broken),
                               static_cast<TDC_LPCWSTR>(number), static_cast<TDC_LPCWSTR>(nullptr)}) {
    r.usage.operands = operands;
    EXPECT_EQ(api->UpLoadUserLogger(&r.usage), 0);
  }
  const auto sent = Sent();
  ASSERT_EQ(sent.size(), 4u);
  for (const auto& q : sent) {
    const Json::Value body = Parse(q.body);
    EXPECT_TRUE(body["operands"].isString() && body["operands"].asString().empty()) << q.body;
    EXPECT_EQ(body.size(), 13u);
  }
  const Call usage = [&](ITetherdocServer* a, char**) { return a->UpLoadUserLogger(&r.usage); };
  RunReplyTable(emu, api, "POST", "/tdocapi/v1/documents/logs", usage,
                {{200, R"({"ret":110008})", 4, nullptr},
                 {200, R"({"ret":110002})", 4, nullptr},
                 {200, R"({"ret":110004})", 6, nullptr},
                 {403, "denied", 4, nullptr}});
  r.usage.docName = r.empty;
  EXPECT_EQ(api->UpLoadUserLogger(&r.usage), 4);
  const std::string log = LogText();
  for (const char* line : {"UpLoadUserLogger url=", "UpLoadUserLogger. parameter is empty, cAppID:app-1, "
                           "cDocID:doc-1 cVersionID:ver-1 startTime:2026-11-23 12:00:00 docName: "
                           "operatorType:edit Operator:save"})
    EXPECT_NE(log.find(line), std::string::npos) << line << "\n" << log;
}

TEST_F(Ops, SmallServicesHandBackTheirData) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  ITetherdocServer* api = Start(emu);
  const Call config = [](ITetherdocServer* a, char** o) { return a->GetServerOptionConfig(o); };
  RunReplyTable(emu, api, "GET", "/tdocapi/v1/server/option-config", config,
                {{200, R"({"ret":0})", 0, "null\n"},
                 {200, R"({"data":{"a":[1,"x"]}})", 0, "{\"a\":[1,\"x\"]}\n"},
                 {403, "denied", 4, nullptr}});
  const Call image = [](ITetherdocServer* a, char** o) { return a->UploadImage("t", "png", "AA", o); };
  RunReplyTable(emu, api, "POST", "/tdocapi/v1/users/sign-image", image,
                {{200, R"({"data":"https://img/1"})", 0, "https://img/1"},
                 {200, R"({"data":""})", -2, nullptr},
                 {200, R"({"data":{"u":1}})", -2, nullptr},
                 {403, "denied", -2, nullptr}});
  const Call open = [](ITetherdocServer* a, char** o) { return a->GetOpenMessage("m", "a", o); };
  RunReplyTable(emu, api, "GET", "/tdocapi/v1/messages/open-message", open,
                {{200, R"({"data":[{"m":1}]})", 0, "{\"m\":1}\n"},
                 {200, R"({"data":{"m":1}})", -2, nullptr},
                 {200, R"({"ret":210007})", 9, nullptr}});
  const Call mail = [](ITetherdocServer* a, char**) { return a->UpdateNotificationSendEmail("t", "v", "o"); };
  RunReplyTable(emu, api, "POST", "/tdocapi/v1/server/send-email", mail,
                {{200, R"({"ret":1})", 6, nullptr}, {200, "{}", 0, nullptr}});
  emu->Reset();
  Reply("GET", "/tdocapi/v1/server/time", 200, R"({"data":[{"time":"2026-11-23 12:00:00"}]})");
  EXPECT_EQ(client_->GetServerTime(), "2026-11-23 12:00:00");
  emu->Reset();
  Reply("GET", "/tdocapi/v1/server/time", 200, R"({"data":{"time":"x"}})");
  EXPECT_EQ(client_->GetServerTime(), "");
}

TEST_F(Ops, OpenMessageNeedsTwoPlaceholdersAndLanguageChangesTheIdentity) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  Json::Value change;
  change["set"]["tdc_messages_open_message"] = "{base}/open?msgId=%s";
  ITetherdocServer* api = Start(emu, change);
  char* out = g_textSentinel;
  EXPECT_EQ(api->GetOpenMessage("m", "a", &out), -2);
  EXPECT_EQ(out, g_textSentinel);
  EXPECT_TRUE(Sent().empty());

  EXPECT_EQ(api->SetClientLanguage(""), -2);
  EXPECT_EQ(api->SetClientLanguage("fr-FR"), 0);
  EXPECT_EQ(api->GetServerOptionConfig(&out), 0);
  TDC_ReleaseLPSTR(out);
  const auto sent = Sent();
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].Header("X-tetherdoc-UA"), "al(fr-FR);cv(2.0.0.0);an(My App);av(12.1)");
  EXPECT_EQ(sent[0].Header("Accept-Language"), "fr-FR");
  const std::string log = LogText();
  EXPECT_NE(log.find("SetClientLanguage fail, lpsClientLanguage is empty!"), std::string::npos);
  EXPECT_NE(log.find("SetClientLanguage, lpsClientLanguage:fr-FR"), std::string::npos);
}

}  // namespace

namespace {

// The connected-document life cycle against the emulator's service model, nothing
// scripted: a user, a document with versions, a usage record, the owner's look-ups,
// and what the service holds afterwards.
TEST_F(Ops, LifeCycleAgainstTheServiceModel) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  Json::Value user;
  user["cUserID"] = "u-1";
  user["token"] = "tok-1";
  user["userEmail"] = "ann@example.com";
  user["firstname"] = "Ann";
  user["lastname"] = "Smith";
  ASSERT_TRUE(emu->Seed("users", user)) << emu->last_error();
  ITetherdocServer* api = Start(emu);
  ASSERT_EQ(api->SetAccessToken(W("tok-1")), 0);
  Records r;
  W owner("u-1");
  r.docInfo.cUserID = owner;
  r.versionInfo.cUserID = owner;

  int32_t valid = 9;
  EXPECT_EQ(api->CheckUserToken("tok-1", &valid), 0);
  EXPECT_EQ(valid, 1);
  EXPECT_EQ(api->CheckUserToken("nobody", &valid), -2);
  EXPECT_EQ(api->UploadDocInfo(&r.docInfo), 0);
  EXPECT_EQ(api->UploadDocInfo(&r.docInfo), 4);  // the service refuses a second registration
  EXPECT_EQ(api->UploadVersionInfo(&r.versionInfo), 0);
  EXPECT_EQ(api->UploadVersionInfo(&r.versionInfo), 4);
  EXPECT_EQ(api->UpLoadUserLogger(&r.usage), 0);
  EXPECT_EQ(api->ModifyDocVersion("tok-1", R"({"cVersionID":"ver-1","docPageCount":9})"), 0);

  char* id = nullptr;
  ASSERT_EQ(api->GetDocOwnerID("doc-1", &id), 0);
  EXPECT_EQ(Take(id), "u-1");
  char* email = nullptr;
  char* mobile = g_textSentinel;
  TDC_LPWSTR name = nullptr;
  ASSERT_EQ(api->GetOwnerEmail(nullptr, "doc-1", &email, &name, &mobile), 0);
  EXPECT_EQ(Take(email), "ann@example.com");
  EXPECT_EQ(TakeWide(name), "Ann Smith");
  EXPECT_EQ(mobile, g_textSentinel);  // the owner has no mobile number
  EXPECT_EQ(api->GetDocOwnerID("no-such-doc", &id), 110002);  // the service's own code

  const Json::Value versions = emu->Inspect("versions");
  ASSERT_EQ(versions["versions"].size(), 1u) << versions;
  EXPECT_EQ(versions["versions"][0u]["docPageCount"].asInt(), 9);
  EXPECT_EQ(emu->Inspect("usage")["usage"].size(), 1u);
  EXPECT_EQ(api->DeleteDocVersion("tok-1", "ver-1"), 0);
  EXPECT_EQ(api->DeleteDocVersion("tok-1", "ver-1"), 6);  // gone: the frame's service error
  EXPECT_EQ(emu->Inspect("versions")["versions"].size(), 0u);
}

}  // namespace
