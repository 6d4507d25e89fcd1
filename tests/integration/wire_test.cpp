// The whole road over real HTTP: platform -> client initialisation -> API directory
// from tdoc-emulator -> a service call through the request frame -> result code, and
// what the emulator received on the wire.
#include <gtest/gtest.h>

#ifdef _WIN32
#include <windows.h>
#endif

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "kit/emulator_client.h"
#include "http_transport/async_winhttp.h"
#include "kit/testkit.h"
#include "support/out_buffer.h"
#include "support/utf.h"
#include "tpcsdk/IPDFPlatform.h"
#include "tpcsdk/ITetherdocServer.h"
#include "web_service/tetherdoc_server.h"

namespace {

using tpcsdk::TetherdocServer;
using tpcsdk::Utf16ToUtf8;
using tpcsdk::Utf8ToUtf16;

constexpr char kLanguage[] = "en-US";
constexpr char kAppName[] = "My App Name";  // blanks on purpose
constexpr char kAppVersion[] = "12.1";
constexpr auto kBound = std::chrono::seconds(20);

// Runs a stop from another thread; true when it completed within the bound and gave 1.
// Wine's WinHTTP lets a closed request go only once the server ends its connection, so
// under wine the emulator ends the held connections when the stop has not completed
// within a few seconds. Everywhere else a stop must complete on its own.
bool StopFromAnotherThread(const std::function<int()>& stop, testkit::EmulatorClient* emu) {
  auto stopper = std::async(std::launch::async, stop);
  if (testkit::UnderWine() &&
      stopper.wait_for(std::chrono::seconds(5)) != std::future_status::ready) {
    emu->Reset();
  }
  return stopper.wait_for(kBound) == std::future_status::ready && stopper.get() == 1;
}

bool StopFromAnotherThread(TetherdocServer* client, testkit::EmulatorClient* emu) {
  return StopFromAnotherThread([client] { return client->StopRequest(); }, emu);
}

// Every test gets an empty application-data folder, so no directory comes from a
// cache that an earlier test left.
class Wire : public ::testing::Test {
 protected:
  void SetUp() override {
    appdata_ = std::make_unique<testkit::ScopedEnv>("TPCSDK_APPDATA_DIR", dir_.path().string());
  }

  std::unique_ptr<TetherdocServer> NewClient() {
    return std::make_unique<TetherdocServer>(kLanguage, kAppName, kAppVersion);
  }
  // A client whose directory came from emu.
  std::unique_ptr<TetherdocServer> ReadyClient(testkit::EmulatorClient* emu) {
    auto client = NewClient();
    EXPECT_EQ(client->InitApi(Utf8ToUtf16(emu->base_url()).c_str()), TDC_HRESULT_OK);
    return client;
  }
  static std::u16string Url(testkit::EmulatorClient* emu, const std::string& target) {
    return Utf8ToUtf16(emu->base_url() + target);
  }

  testkit::TempDir dir_;
  std::unique_ptr<testkit::ScopedEnv> appdata_;
};

TEST_F(Wire, PlatformCreatesOneClientPerHostAndHandsBackTheDirectoryDomain) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  IPDFPlatform* platform = TDC_GetTDOCPlatform();
  ASSERT_NE(platform, nullptr);
  const std::u16string host = Utf8ToUtf16(emu->base_url());
  const auto* whost = reinterpret_cast<TDC_LPCWSTR>(host.c_str());
  TDC_CLIENT_INFO info{kLanguage, "", kAppName, kAppVersion};
  Json::Value change;
  change["set"]["tdc_domain"] = "{base}/service-domain";
  ASSERT_TRUE(emu->SetDirectory(change));

  TDC_LPWSTR domain = nullptr;
  ASSERT_EQ(platform->InitApi(whost, &info, &domain), TDC_HRESULT_OK);
  ASSERT_NE(domain, nullptr);
  const std::u16string first = tpcsdk::WideArg(domain);
  TDC_ReleaseLPWSTR(domain);
  EXPECT_EQ(first, host + u"/service-domain");  // the directory's domain, not the host
  ITetherdocServer* client = platform->GetServerByHost(whost);
  ASSERT_NE(client, nullptr);
  EXPECT_EQ(platform->GetServerByDomain(reinterpret_cast<TDC_LPCWSTR>(first.c_str())), client);
  EXPECT_EQ(platform->GetServerByDomain(whost), nullptr);

  // A second call for the host finds the client and ignores the record entirely.
  TDC_CLIENT_INFO ignored{"", nullptr, "", ""};
  domain = nullptr;
  ASSERT_EQ(platform->InitApi(whost, &ignored, &domain), TDC_HRESULT_OK);
  EXPECT_EQ(tpcsdk::WideArg(domain), first);
  TDC_ReleaseLPWSTR(domain);
  EXPECT_EQ(emu->RequestsTo("/2.0.0.0/My App Name/12.1/en-US/tdocApi.json").size(), 1u);

  // Slot 0 fills the client identity, blanks and all.
  TDC_LPWSTR url = nullptr;
  ASSERT_EQ(client->GetWebServiceUrl("tdc_web_home", &url), TDC_HRESULT_OK);
  EXPECT_EQ(Utf16ToUtf8(tpcsdk::WideArg(url)),
            emu->base_url() + "/web/home?al=en-US&cv=2.0.0.0&an=My App Name&av=12.1");
  TDC_ReleaseLPWSTR(url);
  EXPECT_EQ(client->GetWebServiceUrl("no_such_key", &url), TDC_HRESULT_NO_URL);

  // The same host in other letters is another host: a second client.
  std::u16string upper = host;
  for (char16_t& c : upper)
    if (c >= u'a' && c <= u'z') c = static_cast<char16_t>(c - 32);
  const auto* wupper = reinterpret_cast<TDC_LPCWSTR>(upper.c_str());
  domain = nullptr;
  ASSERT_EQ(platform->InitApi(wupper, &info, &domain), TDC_HRESULT_OK);
  TDC_ReleaseLPWSTR(domain);
  EXPECT_NE(platform->GetServerByHost(wupper), client);
  platform->StopAllRequest();
}

TEST_F(Wire, DirectoryRequestCarriesIdentityAgentAndHeadersExactly) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  auto client = ReadyClient(emu);
  const auto log = emu->Requests();
  ASSERT_EQ(log.size(), 1u);
  const testkit::LoggedRequest& r = log[0];
  EXPECT_EQ(r.method, "GET");
  EXPECT_EQ(r.path, "/2.0.0.0/My App Name/12.1/en-US/tdocApi.json");
  EXPECT_EQ(r.target, "/2.0.0.0/My%20App%20Name/12.1/en-US/tdocApi.json");
  EXPECT_EQ(r.Header("Content-type"), "application/json");
  EXPECT_EQ(r.Header("X-tetherdoc-UA"), "al(en-US);cv(2.0.0.0);an(My App Name);av(12.1)");
  EXPECT_EQ(r.Header("Accept-Language"), "en-US");
  const std::string agent = r.Header("User-Agent");
  EXPECT_EQ(agent.rfind("TDOC/2.0.0.0 ", 0), 0u) << agent;
  const std::string tail = " My_App_Name/12.1 TPCSDK/12.1";
  ASSERT_GT(agent.size(), tail.size());
  EXPECT_EQ(agent.substr(agent.size() - tail.size()), tail) << agent;
}

struct DirectoryCase {
  const char* name;
  const char* change;  // JSON for SetDirectory; empty for none
  int expected;
  bool domainEmpty;
};

class DirectoryDocument : public Wire, public ::testing::WithParamInterface<DirectoryCase> {};

TEST_P(DirectoryDocument, DecidesTheClientsResult) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  const DirectoryCase& c = GetParam();
  Json::Value change;
  ASSERT_TRUE(Json::Reader().parse(c.change, change));
  if (change.isMember("duplicate")) {
    // A size that counts the duplicated member twice.
    Json::Value info;
    ASSERT_TRUE(emu->Call("GET", "info", Json::Value(Json::objectValue), &info));
    change["size"] = info["directory_keys"].size() + 1;
  }
  ASSERT_TRUE(emu->SetDirectory(change)) << emu->last_error();
  auto client = NewClient();
  EXPECT_EQ(client->InitApi(Utf8ToUtf16(emu->base_url()).c_str()), c.expected);
  if (c.expected == TDC_HRESULT_OK) {
    EXPECT_EQ(client->Domain().empty(), c.domainEmpty);
  }
  // Only a fully accepted directory reaches the cache: a new client asks again.
  auto again = NewClient();
  again->InitApi(Utf8ToUtf16(emu->base_url()).c_str());
  EXPECT_EQ(emu->Requests().size(), c.expected == TDC_HRESULT_OK ? 1u : 2u);
}

INSTANTIATE_TEST_SUITE_P(
    Failures, DirectoryDocument,
    ::testing::Values(
        DirectoryCase{"Forbidden", R"({"status":403})", TDC_HRESULT_FORBIDDEN, false},
        DirectoryCase{"ServerError", R"({"status":500})", TDC_HRESULT_HTTP_ERROR, false},
        DirectoryCase{"NotJson", R"({"whole":true,"body":"not json"})", TDC_HRESULT_SERVICE_ERROR,
                      false},
        DirectoryCase{"SizeTooBig", R"({"size":1000})", TDC_HRESULT_HTTP_ERROR, false},
        DirectoryCase{"DuplicateCountedTwice", R"({"duplicate":["tdc_users"]})",
                      TDC_HRESULT_HTTP_ERROR, false},
        DirectoryCase{"TwsConfigEmpty", R"({"twsConfig":{}})", TDC_HRESULT_SERVICE_ERROR, false},
        DirectoryCase{"TwsConfigMissing", R"({"omit":["twsConfig"]})", TDC_HRESULT_SERVICE_ERROR,
                      false},
        DirectoryCase{"UrlNotObjectSizeZero", R"({"url":"text","size":0})", TDC_HRESULT_OK, true},
        DirectoryCase{"UrlNotObjectSizeThree", R"({"url":[1,2,3],"size":3})",
                      TDC_HRESULT_HTTP_ERROR, false},
        DirectoryCase{"EmptyUrlSizeZero", R"({"url":{},"size":0})", TDC_HRESULT_OK, true}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(Wire, UnreachableOrUnusableHostsFailWithHttpError) {
  auto client = NewClient();
  EXPECT_EQ(client->InitApi(u"http://127.0.0.1:1"), TDC_HRESULT_HTTP_ERROR);  // refused
  EXPECT_EQ(client->InitApi(u"not a url"), TDC_HRESULT_HTTP_ERROR);          // cannot start
  EXPECT_EQ(client->InitApi(u""), TDC_HRESULT_FAILED);
  EXPECT_EQ(client->InitApi(nullptr), TDC_HRESULT_BAD_ARGUMENT);
}

struct ReplyCase {
  const char* name;
  int status;
  const char* body;
  int expected;
};

class ReplyMapping : public Wire, public ::testing::WithParamInterface<ReplyCase> {};

TEST_P(ReplyMapping, StatusAndEnvelopeGiveOneResult) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  auto client = ReadyClient(emu);
  const ReplyCase& c = GetParam();
  Json::Value rule;
  rule["method"] = "POST";
  rule["path"] = "/tdocapi/v1/documents";
  rule["status"] = c.status;
  rule["body"] = c.body;
  rule["times"] = 1;
  ASSERT_NE(emu->Script(rule), 0u) << emu->last_error();
  Json::Value reply;
  EXPECT_EQ(client->RequestJson(reply, client->GetApiUrl(u"url", u"tdc_documents"), u"POST",
                                "{\"a\":1}\n"),
            c.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Replies, ReplyMapping,
    ::testing::Values(ReplyCase{"Ok", 200, R"({"ret":0,"data":[]})", TDC_HRESULT_OK},
                      ReplyCase{"EmptyObject", 200, "{}", TDC_HRESULT_OK},
                      ReplyCase{"Array", 200, "[]", TDC_HRESULT_SERVICE_ERROR},
                      ReplyCase{"NotJson", 200, "<html>", TDC_HRESULT_SERVICE_ERROR},
                      ReplyCase{"RetNonZero", 200, R"({"ret":5})", TDC_HRESULT_SERVICE_ERROR},
                      ReplyCase{"RetAsText", 200, R"({"ret":"x"})", TDC_HRESULT_SERVICE_ERROR},
                      ReplyCase{"TokenExpired", 200, R"({"ret":210007})", TDC_HRESULT_RET_210007},
                      ReplyCase{"Created", 201, R"({"ret":0})", TDC_HRESULT_HTTP_ERROR},
                      ReplyCase{"Forbidden", 403, R"({"ret":0})", TDC_HRESULT_FORBIDDEN},
                      ReplyCase{"NotFound", 404, R"({"ret":0})", TDC_HRESULT_HTTP_ERROR},
                      ReplyCase{"ServerError", 500, R"({"ret":0})", TDC_HRESULT_HTTP_ERROR}),
    [](const auto& info) { return std::string(info.param.name); });

// (Zero bytes, resets and the other broken replies: the fault matrix.)
TEST_F(Wire, BodyInChunksArrivesWhole) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  auto client = ReadyClient(emu);
  const std::u16string url = client->GetApiUrl(u"url", u"tdc_server_option_config");
  const std::string path = "/tdocapi/v1/server/option-config";
  Json::Value body;
  body["ret"] = 0;
  body["data"]["text"] = std::string(3000, 'x') + "END";
  Json::Value rule;
  rule["method"] = "GET";
  rule["path"] = path;
  rule["status"] = 200;
  rule["body"] = Json::FastWriter().write(body);
  rule["times"] = 1;
  ASSERT_NE(emu->Script(rule), 0u);
  Json::Value chunks;
  chunks["count"] = 3;
  ASSERT_NE(emu->FaultOnce("GET", path, "chunks", chunks), 0u) << emu->last_error();
  Json::Value reply;
  ASSERT_EQ(client->RequestJson(reply, url, u"GET", ""), TDC_HRESULT_OK);
  EXPECT_EQ(reply["data"]["text"].asString(), body["data"]["text"].asString());
}

TEST_F(Wire, LongComponentsCannotStart) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  auto client = ReadyClient(emu);
  const std::string path = "/tdocapi/v1/server/time";
  Json::Value reply;
  const size_t before = emu->Requests().size();
  EXPECT_EQ(client->RequestJson(reply, Url(emu, path + "?q=" + std::string(1100, 'a')), u"GET", ""),
            TDC_HRESULT_FAILED);
  EXPECT_EQ(client->RequestJson(reply, Url(emu, "/" + std::string(1100, 'p')), u"GET", ""),
            TDC_HRESULT_FAILED);
  EXPECT_EQ(emu->Requests().size(), before);
  EXPECT_EQ(client->PendingRequests(), 0u);
}

TEST_F(Wire, TicketPathKeepsItsEscapesWhileOtherQueriesAreDecoded) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  auto client = ReadyClient(emu);
  Json::Value reply;
  const std::string ticket = "/tdocapi/v1/users/get-cas-ticket?email=a%2Bb%40c.d&s=x%26y";
  ASSERT_EQ(client->RequestJson(reply, Url(emu, ticket), u"GET", ""), TDC_HRESULT_OK);
  const std::string other = "/tdocapi/v1/users?email=a%2Bb%40c.d";
  ASSERT_EQ(client->RequestJson(reply, Url(emu, other), u"GET", ""), TDC_HRESULT_OK);
  const auto log = emu->Requests();
  ASSERT_EQ(log.size(), 3u);
  EXPECT_EQ(log[1].target, ticket);
  EXPECT_EQ(log[2].target, "/tdocapi/v1/users?email=a+b@c.d");
}

TEST_F(Wire, ServiceCertificatesAreAcceptedExpiredOrForAnotherName) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  for (const char* kind : {"expired", "wrong_name"}) {
    const std::string base = emu->OpenTlsListener(kind);
    ASSERT_FALSE(base.empty()) << emu->last_error();
    auto client = NewClient();
    EXPECT_EQ(client->InitApi(Utf8ToUtf16(base).c_str()), TDC_HRESULT_OK) << kind;
    const auto log = emu->Requests();
    ASSERT_FALSE(log.empty());
    EXPECT_TRUE(log.back().tls) << kind;
    // Both listeners share the host name, and so the cache entry: start afresh.
    std::filesystem::remove_all(dir_.path());
    std::filesystem::create_directory(dir_.path());
  }
}

struct StallCase {
  const char* name;
  const char* fault;
  const char* extra;
  int expected;
};

class StalledRequest : public Wire, public ::testing::WithParamInterface<StallCase> {};

// An exchange that never completes holds its caller until StopRequest frees it; the
// caller then sees the status that had arrived, with the raw headers as its text.
TEST_P(StalledRequest, IsFreedByStopRequest) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  auto client = ReadyClient(emu);
  const StallCase& c = GetParam();
  const std::string path = "/tdocapi/v1/server/time";
  Json::Value extra;
  ASSERT_TRUE(Json::Reader().parse(c.extra, extra));
  ASSERT_NE(emu->FaultOnce("GET", path, c.fault, extra), 0u) << emu->last_error();

  auto call = std::async(std::launch::async, [&] {
    Json::Value reply;
    return client->RequestJson(reply, Url(emu, path), u"GET", "");
  });
  ASSERT_TRUE(emu->WaitForRequests(1, 10000, path));
  const bool headersExpected = c.expected != TDC_HRESULT_HTTP_ERROR || extra.isMember("status");
  if (headersExpected) {
    ASSERT_EQ(client->PendingRequests(), 1u);
    ASSERT_TRUE(client->WaitForPendingStatus(kBound));
  } else {
    ASSERT_TRUE(emu->WaitForStalls(1, 10000));
  }
  EXPECT_EQ(call.wait_for(std::chrono::milliseconds(0)), std::future_status::timeout);
  ASSERT_TRUE(StopFromAnotherThread(client.get(), emu));
  ASSERT_EQ(call.wait_for(kBound), std::future_status::ready);
  EXPECT_EQ(call.get(), c.expected);
  emu->Release();
}

INSTANTIATE_TEST_SUITE_P(
    Stalls, StalledRequest,
    ::testing::Values(StallCase{"EmptyBody200", "empty_body", R"({"status":200})",
                                TDC_HRESULT_SERVICE_ERROR},
                      StallCase{"EmptyBody204", "empty_body", R"({"status":204})",
                                TDC_HRESULT_HTTP_ERROR},
                      StallCase{"BeforeHeaders", "stall_before_headers", "{}",
                                TDC_HRESULT_HTTP_ERROR}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(Wire, StopRequestFromAnotherThreadFreesAHundredStalledCalls) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  auto client = ReadyClient(emu);
  const std::string path = "/tdocapi/v1/messages/polling";
  Json::Value rule;
  rule["method"] = "POST";
  rule["path"] = path;
  rule["kind"] = "stall_before_headers";
  rule["times"] = -1;
  ASSERT_NE(emu->Fault(rule), 0u) << emu->last_error();

  constexpr int kCalls = 100;
  std::vector<std::future<int>> calls;
  // Whatever happens below, every call is freed before the test leaves.
  struct Unblock {
    TetherdocServer* client;
    testkit::EmulatorClient* emu;
    std::vector<std::future<int>>* calls;
    ~Unblock() {
      for (int round = 0; round < 200; ++round) {
        bool done = true;
        for (auto& c : *calls)
          done = done && (!c.valid() ||
                          c.wait_for(std::chrono::milliseconds(0)) == std::future_status::ready);
        if (done) return;
        emu->Reset();
        client->StopRequest();
        for (auto& c : *calls)
          if (c.valid()) c.wait_for(std::chrono::milliseconds(50));
      }
    }
  } unblock{client.get(), emu, &calls};
  for (int i = 0; i < kCalls; ++i) {
    calls.push_back(std::async(std::launch::async, [&] {
      Json::Value reply;
      return client->RequestJson(reply, Url(emu, path), u"POST", "{}\n");
    }));
  }
  ASSERT_TRUE(emu->WaitForStalls(kCalls, 60000)) << emu->Requests().size() << " arrived";
  ASSERT_TRUE(StopFromAnotherThread(client.get(), emu));
  for (auto& call : calls) {
    ASSERT_EQ(call.wait_for(kBound), std::future_status::ready);
    EXPECT_EQ(call.get(), TDC_HRESULT_HTTP_ERROR);
  }
  EXPECT_EQ(client->PendingRequests(), 0u);
  emu->Release();
}

// The end of a client stops its calls and waits until each has left it: the callers
// wake, finish in the frame and see a stopped call, on a client that still exists.
TEST_F(Wire, DestroyedClientWaitsForItsStoppedCallsToLeave) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  auto client = ReadyClient(emu);
  const std::string path = "/tdocapi/v1/server/time";
  Json::Value rule;
  rule["method"] = "GET";
  rule["path"] = path;
  rule["kind"] = "stall_before_headers";
  rule["times"] = -1;
  ASSERT_NE(emu->Fault(rule), 0u) << emu->last_error();
  constexpr size_t kCalls = 4;
  TetherdocServer* raw = client.get();
  const std::u16string url = Url(emu, path);
  std::vector<std::future<int>> calls;
  for (size_t i = 0; i < kCalls; ++i) {
    calls.push_back(std::async(std::launch::async, [raw, url] {
      Json::Value reply;
      return raw->RequestJson(reply, url, u"GET", "");
    }));
  }
  ASSERT_TRUE(emu->WaitForStalls(kCalls, 10000));
  ASSERT_TRUE(StopFromAnotherThread([&] { client.reset(); return 1; }, emu));
  for (auto& call : calls) {
    ASSERT_EQ(call.wait_for(kBound), std::future_status::ready);
    EXPECT_EQ(call.get(), TDC_HRESULT_HTTP_ERROR);
  }
  emu->Release();
}

// A stop that reaches a call before its request exists (listed, not yet connected)
// still holds: the send never goes out, and the call ends at once with no status.
TEST_F(Wire, StopBeforeTheSendKeepsTheCallOffTheWire) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  const std::string path = "/tdocapi/v1/server/time";
  ASSERT_NE(emu->FaultOnce("GET", path, "stall_before_headers"), 0u) << emu->last_error();
  tpcsdk::CAsyncWinHttp::EnsureSession(u"TDOC/2.0.0.0 test");
  tpcsdk::CAsyncWinHttp request;
  request.CloseRequest();
  ASSERT_TRUE(request.Connect(Url(emu, path)));
  auto send = std::async(std::launch::async, [&] {
    return request.SendRequest(u"Accept-Language: en-US\r\n", "", u"GET");
  });
  const bool ended = send.wait_for(kBound) == std::future_status::ready;
  if (!ended) StopFromAnotherThread([&] { request.CloseRequest(); return 1; }, emu);
  ASSERT_TRUE(ended);
  EXPECT_TRUE(send.get());
  EXPECT_EQ(request.StatusCode(), 0);
  EXPECT_TRUE(emu->Requests().empty());
  emu->Release();
}

// Stops landing anywhere in a call (before it is listed, between the list and the
// send, during the send, while it waits): every call ends, none is left listed.
TEST_F(Wire, StopsLandingAnywhereInACallEndEveryCall) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  if (testkit::UnderWine()) GTEST_SKIP() << "wine's WinHTTP lets a stopped call go only with its server";
  auto client = ReadyClient(emu);
  const std::string path = "/tdocapi/v1/server/time";
  Json::Value rule;
  rule["method"] = "GET";
  rule["path"] = path;
  rule["kind"] = "stall_before_headers";
  rule["times"] = -1;
  ASSERT_NE(emu->Fault(rule), 0u) << emu->last_error();
  const std::u16string url = Url(emu, path);
  for (int round = 0; round < 40; ++round) {
    auto call = std::async(std::launch::async, [&] {
      Json::Value reply;
      return client->RequestJson(reply, url, u"GET", "");
    });
    const auto deadline = std::chrono::steady_clock::now() + kBound;
    while (call.wait_for(std::chrono::milliseconds(0)) != std::future_status::ready &&
           std::chrono::steady_clock::now() < deadline) {
      client->StopRequest();
    }
    const bool ended = call.wait_for(std::chrono::milliseconds(0)) == std::future_status::ready;
    if (!ended) emu->Reset();  // a call no stop can reach any more: end its connection
    ASSERT_TRUE(ended) << "round " << round;
    EXPECT_EQ(call.get(), TDC_HRESULT_HTTP_ERROR);
  }
  EXPECT_EQ(client->PendingRequests(), 0u);
  emu->Release();
}

#ifdef _WIN32
// Counts the texts "StopRequest" written to the debug output while it lives. With no
// debugger attached, OutputDebugStringW raises a print exception that a vectored
// handler sees first: the wide form on newer systems, the narrow one on others.
class StopRequestDebugTexts {
 public:
  StopRequestDebugTexts() : handler_(AddVectoredExceptionHandler(1, &Seen)) { wide_ = narrow_ = 0; }
  ~StopRequestDebugTexts() { RemoveVectoredExceptionHandler(handler_); }
  int Count() const { return std::max(wide_.load(), narrow_.load()); }

 private:
  static LONG CALLBACK Seen(EXCEPTION_POINTERS* info) {
    constexpr DWORD kPrintWide = 0x4001000A;  // DBG_PRINTEXCEPTION_WIDE_C
    const EXCEPTION_RECORD* r = info->ExceptionRecord;
    if (r->NumberParameters >= 2 && r->ExceptionInformation[1] != 0) {
      const auto text = r->ExceptionInformation[1];
      if (r->ExceptionCode == kPrintWide && std::wstring(reinterpret_cast<const wchar_t*>(text)) == L"StopRequest")
        ++wide_;
      if (r->ExceptionCode == DBG_PRINTEXCEPTION_C && std::string(reinterpret_cast<const char*>(text)) == "StopRequest")
        ++narrow_;
    }
    return EXCEPTION_CONTINUE_SEARCH;
  }
  static inline std::atomic<int> wide_{0}, narrow_{0};
  PVOID handler_;
};

// The frame writes "StopRequest" to the debug output for each closing step: the end of
// a request, a failed send, and each request StopRequest closes. A request that never
// connected has nothing to close.
TEST_F(Wire, EachClosingStepWritesStopRequestToTheDebugOutput) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  auto client = ReadyClient(emu);
  Json::Value reply;
  {
    StopRequestDebugTexts texts;
    EXPECT_EQ(client->RequestJson(reply, Url(emu, "/" + std::string(1100, 'p')), u"GET", ""),
              TDC_HRESULT_FAILED);
    EXPECT_EQ(texts.Count(), 0);
    EXPECT_EQ(client->RequestJson(reply, u"http://127.0.0.1:1/x", u"GET", ""), TDC_HRESULT_HTTP_ERROR);
    EXPECT_EQ(texts.Count(), 1);
  }
  const std::string path = "/tdocapi/v1/server/time";
  ASSERT_NE(emu->FaultOnce("GET", path, "stall_before_headers"), 0u) << emu->last_error();
  StopRequestDebugTexts texts;
  auto call = std::async(std::launch::async, [&] {
    Json::Value stalled;
    return client->RequestJson(stalled, Url(emu, path), u"GET", "");
  });
  ASSERT_TRUE(emu->WaitForStalls(1, 10000));
  ASSERT_TRUE(StopFromAnotherThread(client.get(), emu));
  ASSERT_EQ(call.wait_for(kBound), std::future_status::ready);
  EXPECT_EQ(call.get(), TDC_HRESULT_HTTP_ERROR);
  EXPECT_EQ(texts.Count(), 2);  // StopRequest's, then the caller's own end
  emu->Release();
}
#endif

}  // namespace
