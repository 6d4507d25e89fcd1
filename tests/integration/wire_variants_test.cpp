// Service calls whose outcome depends on what crosses the wire: the methods and their
// bodies, what the reply leaves in the caller's value, redirects, broken replies, a
// cached directory that does not add up, non-ASCII identities, and the log lines of
// the frame and the transport.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "kit/emulator_client.h"
#include "kit/testkit.h"
#include "platform/platform.h"
#include "support/utf.h"
#include "web_service/api_cache.h"
#include "web_service/tetherdoc_server.h"

namespace {

using tpcsdk::TetherdocServer;
using tpcsdk::Utf8ToUtf16;

// The identity of the other wire tests: the process-wide session keeps the user agent
// of the first request of the process, whichever test makes it.
constexpr char kAppName[] = "My App Name";
constexpr char kAppVersion[] = "12.1";
// A path of no service, so only what a test scripts answers it.
const std::string kPath = "/tdocapi/v1/wire-check";
// Large enough that an HTTP library would ask the server to continue first.
const std::string kLargeBody = "{\"x\":\"" + std::string(300000, 'y') + "\"}\n";
const std::string kLargeLength = std::to_string(kLargeBody.size());

bool EqualsNoCase(const std::string& a, const std::string& b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

class WireCases : public ::testing::Test {
 protected:
  void SetUp() override {
    appdata_ = std::make_unique<testkit::ScopedEnv>("TPCSDK_APPDATA_DIR", dir_.path().string());
  }
  std::unique_ptr<TetherdocServer> ReadyClient(testkit::EmulatorClient* emu,
                                               const char* al = "en-US",
                                               const char* an = kAppName) {
    auto client = std::make_unique<TetherdocServer>(al, an, kAppVersion);
    EXPECT_EQ(client->InitApi(Utf8ToUtf16(emu->base_url()).c_str()), TDC_HRESULT_OK);
    return client;
  }
  static std::u16string Url(const std::string& base, const std::string& target) {
    return Utf8ToUtf16(base + target);
  }
  // A scripted reply for `method` on `path`, every time.
  static Json::Value Rule(const std::string& method, const std::string& path, int status,
                          const std::string& body) {
    return testkit::BodyRule(method, path, status, body, -1);
  }

  testkit::TempDir dir_;
  std::unique_ptr<testkit::ScopedEnv> appdata_;
};

// ---- the caller's reply -------------------------------------------------------------

struct KeptCase {
  const char* name;
  int status;
  const char* body;
  int expected;
  bool parsed;  // the caller's value holds the reply afterwards
};

class ReplyValue : public WireCases, public ::testing::WithParamInterface<KeptCase> {};

TEST_P(ReplyValue, IsReplacedOnlyWhenTheBodyWasParsed) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  auto client = ReadyClient(emu);
  const KeptCase& c = GetParam();
  ASSERT_NE(emu->Script(Rule("POST", kPath, c.status, c.body)), 0u) << emu->last_error();
  Json::Value reply;
  reply["caller"] = "untouched";
  EXPECT_EQ(client->RequestJson(reply, Url(emu->base_url(), kPath), u"POST", "{}\n"), c.expected);
  if (c.parsed) {
    Json::Value body;
    ASSERT_TRUE(Json::Reader().parse(c.body, body));
    EXPECT_EQ(reply, body);
  } else {
    EXPECT_EQ(reply["caller"].asString(), "untouched");
    EXPECT_EQ(reply.size(), 1u);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Results, ReplyValue,
    ::testing::Values(
        KeptCase{"Ok0", 200, R"({"ret":0,"data":{"k":1}})", TDC_HRESULT_OK, true},
        KeptCase{"HttpError3", 500, R"({"ret":0,"data":1})", TDC_HRESULT_HTTP_ERROR, false},
        KeptCase{"Forbidden4", 403, R"({"ret":0,"data":1})", TDC_HRESULT_FORBIDDEN, false},
        KeptCase{"ServiceError6", 200, R"({"ret":7,"message":"no"})", TDC_HRESULT_SERVICE_ERROR,
                 true},
        KeptCase{"TokenExpired9", 200, R"({"ret":210007,"message":"expired"})",
                 TDC_HRESULT_RET_210007, true}),
    [](const auto& info) { return std::string(info.param.name); });

// ---- methods and bodies ------------------------------------------------------------------

struct MethodCase {
  const char* name;
  const char16_t* method;
  const char* body;
  const char* length;  // Content-Length on the wire; empty for none
};

class MethodOnTheWire : public WireCases, public ::testing::WithParamInterface<MethodCase> {};

// The method and the body go out as given, with the frame's headers and none that an
// HTTP library might add of its own.
TEST_P(MethodOnTheWire, CarriesItsBodyAndOnlyTheFramesHeaders) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  auto client = ReadyClient(emu);
  const MethodCase& c = GetParam();
  const std::string method = tpcsdk::Utf16ToUtf8(c.method);
  ASSERT_NE(emu->Script(Rule(method, kPath, 200, R"({"ret":0})")), 0u);
  ASSERT_TRUE(emu->ClearLog());
  Json::Value reply;
  ASSERT_EQ(client->RequestJson(reply, Url(emu->base_url(), kPath), c.method, c.body),
            TDC_HRESULT_OK);
  const auto log = emu->Requests();
  ASSERT_EQ(log.size(), 1u);
  const testkit::LoggedRequest& r = log[0];
  EXPECT_EQ(r.method, method);
  EXPECT_EQ(r.body, c.body);
  EXPECT_EQ(r.Header("Content-Length"), c.length);
  EXPECT_FALSE(r.HasHeader("Expect"));
  EXPECT_FALSE(r.HasHeader("Accept"));
  EXPECT_FALSE(r.HasHeader("Transfer-Encoding"));
  size_t types = 0;
  for (const auto& [name, value] : r.headers) {
    if (!EqualsNoCase(name, "Content-Type")) continue;
    ++types;
    EXPECT_EQ(value, "application/json");
  }
  EXPECT_EQ(types, 1u);
}

INSTANTIATE_TEST_SUITE_P(
    Methods, MethodOnTheWire,
    ::testing::Values(MethodCase{"Post", u"POST", "{\"a\":\"b\"}\n", "10"},
                      MethodCase{"PostEmpty", u"POST", "", "0"},
                      MethodCase{"Put", u"PUT", "{\"put\":1}\n", "10"},
                      MethodCase{"PutEmpty", u"PUT", "", "0"},
                      MethodCase{"Delete", u"DELETE", "{\"id\":\"x\"}\n", "11"},
                      MethodCase{"DeleteEmpty", u"DELETE", "", ""},
                      MethodCase{"PostLarge", u"POST", kLargeBody.c_str(), kLargeLength.c_str()}),
    [](const auto& info) { return std::string(info.param.name); });

// ---- redirects ---------------------------------------------------------------------------

TEST_F(WireCases, RedirectFromHttpsToHttpIsNotFollowed) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  auto client = ReadyClient(emu);
  const std::string secure = emu->OpenTlsListener("valid");
  ASSERT_FALSE(secure.empty()) << emu->last_error();
  // A body, since an empty one would hold the call until it is stopped.
  Json::Value rule = Rule("GET", "/moved", 302, "moved");
  rule["headers"]["Location"] = emu->base_url() + kPath;
  ASSERT_NE(emu->Script(rule), 0u);
  ASSERT_TRUE(emu->ClearLog());
  Json::Value reply;
  EXPECT_EQ(client->RequestJson(reply, Url(secure, "/moved"), u"GET", ""), TDC_HRESULT_HTTP_ERROR);
  const auto log = emu->Requests();
  ASSERT_EQ(log.size(), 1u);  // the plain URL is never asked for
  EXPECT_TRUE(log[0].tls);
}

TEST_F(WireCases, TenRedirectsAreFollowedAndTheEleventhFails) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  auto client = ReadyClient(emu);
  for (int hop = 0; hop < 11; ++hop) {
    Json::Value rule = Rule("GET", "/hop/" + std::to_string(hop), 302, "moved");
    rule["headers"]["Location"] = "/hop/" + std::to_string(hop + 1);
    ASSERT_NE(emu->Script(rule), 0u);
  }
  ASSERT_NE(emu->Script(Rule("GET", "/hop/11", 200, R"({"ret":0})")), 0u);
  ASSERT_NE(emu->Script(Rule("GET", "/end/10", 200, R"({"ret":0})")), 0u);
  for (int hop = 0; hop < 10; ++hop) {
    Json::Value rule = Rule("GET", "/end/" + std::to_string(hop), 302, "moved");
    rule["headers"]["Location"] = "/end/" + std::to_string(hop + 1);
    ASSERT_NE(emu->Script(rule), 0u);
  }
  Json::Value reply;
  // Ten redirects reach the answer.
  EXPECT_EQ(client->RequestJson(reply, Url(emu->base_url(), "/end/0"), u"GET", ""),
            TDC_HRESULT_OK);
  // Eleven do not: the call fails with no status, after ten were followed.
  ASSERT_TRUE(emu->ClearLog());
  EXPECT_EQ(client->RequestJson(reply, Url(emu->base_url(), "/hop/0"), u"GET", ""),
            TDC_HRESULT_HTTP_ERROR);
  EXPECT_EQ(emu->Requests().size(), 11u);
  EXPECT_TRUE(emu->RequestsTo("/hop/11").empty());
}

// ---- broken replies and the cache -----------------------------------------------------------

TEST_F(WireCases, ResetInMidBodyLeavesTheHeadersAsTheText) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  auto client = ReadyClient(emu);
  Json::Value body;
  body["ret"] = 0;
  body["data"] = std::string(4000, 'x');
  ASSERT_NE(emu->Script(Rule("GET", kPath, 200, Json::FastWriter().write(body))), 0u);
  Json::Value at;
  at["at"] = 100;
  ASSERT_NE(emu->FaultOnce("GET", kPath, "reset_mid_body", at), 0u);
  std::u16string text, extra;
  const int status = client->EndRequest(
      client->BeginRequest(Url(emu->base_url(), kPath), u"GET", ""), text, extra);
  EXPECT_EQ(status, 200);
  const std::string got = tpcsdk::Utf16ToUtf8(text);
#ifdef _WIN32
  // The platform's HTTP client here may have read some of the body before the reset
  // reached it; what it hands back is then that part of the body.
  const std::string sent = Json::FastWriter().write(body);
  EXPECT_TRUE(got.rfind("HTTP/1.1 200", 0) == 0 || (!got.empty() && sent.rfind(got, 0) == 0)) << got;
#else
  EXPECT_EQ(got.rfind("HTTP/1.1 200", 0), 0u) << got;
#endif

  ASSERT_NE(emu->FaultOnce("GET", kPath, "reset_mid_body", at), 0u);
  Json::Value reply;
  const int result = client->RequestJson(reply, Url(emu->base_url(), kPath), u"GET", "");
#ifdef _WIN32
  // The platform's HTTP client here may take the reset before it has read the head
  // that came just ahead of it, and then reports a failed exchange.
  EXPECT_TRUE(result == TDC_HRESULT_SERVICE_ERROR || result == TDC_HRESULT_HTTP_ERROR) << result;
#else
  EXPECT_EQ(result, TDC_HRESULT_SERVICE_ERROR);
#endif
}

TEST_F(WireCases, CachedDirectoryOfTheWrongSizeFailsWithoutARequestAndStays) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  const std::u16string host = Utf8ToUtf16(emu->base_url());
  const tpcsdk::ApiCache cache(kAppName);
  cache.SetCacheApi(host, R"({"size":3,"twsConfig":{"a":1},"url":{"tdc_domain":"http://d/x"}})");
  const std::filesystem::path entry(cache.EntryPath(host));
  ASSERT_TRUE(std::filesystem::exists(entry));
  ASSERT_FALSE(cache.GetCacheApi(host).empty());

  TetherdocServer client("en-US", kAppName, kAppVersion);
  EXPECT_EQ(client.InitApi(host.c_str()), TDC_HRESULT_HTTP_ERROR);
  EXPECT_TRUE(emu->Requests().empty());
  EXPECT_TRUE(std::filesystem::exists(entry));
}

// ---- identities that are not ASCII ----------------------------------------------------------

TEST_F(WireCases, NonAsciiNameAndLanguageTravelAsUtf8) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  const char* an = "R\xC3\xA9sum\xC3\xA9 \xE6\x96\x87\xE6\xA1\xA3";  // "Résumé 文档"
  const char* al = "zh-\xE4\xB8\xAD";                                // "zh-中"
  auto client = ReadyClient(emu, al, an);
  const auto log = emu->Requests();
  ASSERT_EQ(log.size(), 1u);
  EXPECT_EQ(log[0].path, std::string("/2.0.0.0/") + an + "/" + kAppVersion + "/" + al + "/tdocApi.json");
  for (unsigned char c : log[0].target) {
    EXPECT_TRUE(c > 0x20 && c < 0x7F) << "not escaped on the request line: " << log[0].target;
  }
}

// ---- log lines --------------------------------------------------------------------------------

// Everything the log files under `root` hold.
std::string ReadLogs(const std::filesystem::path& root) {
  std::string all;
  for (const auto& e : std::filesystem::recursive_directory_iterator(root)) {
    if (e.is_regular_file() && e.path().extension() == ".log") all += testkit::ReadFile(e.path());
  }
  return all;
}

TEST_F(WireCases, FrameAndTransportWriteTheirLogLines) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  // The log needs its product's folder; the product is told by where the module is.
  for (const char* product : {"Tarvo PDF Editor", "Tarvo PDF Reader"})
    std::filesystem::create_directories(dir_.path() / "Tarvo Software" / product);
  tpcsdk::TDOCPlatform* platform = tpcsdk::TDOCPlatform::Instance();
  ASSERT_NE(platform, nullptr);
  platform->EnableLogging();
  ASSERT_NE(platform->Log(), nullptr);
  {
    auto client = ReadyClient(emu);  // takes the platform's log
    Json::Value reply;
    EXPECT_EQ(client->RequestJson(reply, Url(emu->base_url(), kPath + "?q=1"), u"GET", ""),
              TDC_HRESULT_OK);
    ASSERT_NE(emu->FaultOnce("GET", kPath, "reset_before_headers"), 0u);
    ASSERT_NE(emu->FaultOnce("GET", kPath, "reset_before_headers"), 0u);
    EXPECT_EQ(client->RequestJson(reply, Url(emu->base_url(), kPath), u"GET", ""),
              TDC_HRESULT_HTTP_ERROR);
  }
  // Closing the platform closes its log, and the next test starts without one.
  tpcsdk::TDOCPlatform::ExitInstance(false);
  const std::string log = ReadLogs(dir_.path());
  for (const std::string& line :
       {"TetherdocServer::BeginRequest. Host = " + emu->base_url() + kPath + "?q=1",
        std::string("TetherdocServer::EndRequest."),
        std::string("WinHttpRequest::OnCallback. Internet Status = 00400000"),
        std::string("WinHttpRequest::OnCallback. Internet Status = 00020000"),
        std::string("WinHttpRequest::OnCallback. Internet Status = 00200000"),
        std::string("WinHttpRequest::OnCallback. Request error. Result Code = ")}) {
    EXPECT_NE(log.find("]" + line), std::string::npos) << line;
  }
  // Data notifications are not logged.
  EXPECT_EQ(log.find("Internet Status = 00040000"), std::string::npos);
  EXPECT_EQ(log.find("Internet Status = 00080000"), std::string::npos);
}

}  // namespace
