// The request frame's pure parts (URL placeholders, identity texts, reply envelope),
// the access token between threads, and requests that run out of memory.
#include <gtest/gtest.h>

#include <json/json.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "kit/emulator_client.h"
#include "kit/testkit.h"
#include "support/base64.h"
#include "support/out_buffer.h"
#include "support/utf.h"
#include "web_service/tetherdoc_server.h"

// Allocations of this program fail with bad_alloc above a size that a thread sets for
// itself (see FailAllocationsAbove); every other allocation is plain malloc.
#if defined(__GNUC__) && !defined(__clang__)
// The replacement pair below is malloc and free, which the compiler can't tell.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif
namespace {
thread_local std::size_t t_failAbove = 0;
}  // namespace

// Visible to the shared libraries too, so that all of the program allocates alike.
#define TPCSDK_TEST_REPLACEMENT __attribute__((visibility("default")))
TPCSDK_TEST_REPLACEMENT void* operator new(std::size_t size) {
  if (t_failAbove != 0 && size > t_failAbove) throw std::bad_alloc();
  if (void* p = std::malloc(size ? size : 1)) return p;
  throw std::bad_alloc();
}
TPCSDK_TEST_REPLACEMENT void* operator new[](std::size_t size) { return ::operator new(size); }
TPCSDK_TEST_REPLACEMENT void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  try {
    return ::operator new(size);
  } catch (...) {
    return nullptr;
  }
}
TPCSDK_TEST_REPLACEMENT void* operator new[](std::size_t size, const std::nothrow_t& n) noexcept {
  return ::operator new(size, n);
}
TPCSDK_TEST_REPLACEMENT void operator delete(void* p) noexcept { std::free(p); }
TPCSDK_TEST_REPLACEMENT void operator delete(void* p, std::size_t) noexcept { std::free(p); }
TPCSDK_TEST_REPLACEMENT void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
TPCSDK_TEST_REPLACEMENT void operator delete[](void* p) noexcept { std::free(p); }
TPCSDK_TEST_REPLACEMENT void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
TPCSDK_TEST_REPLACEMENT void operator delete[](void* p, const std::nothrow_t&) noexcept { std::free(p); }

namespace {

// For its life, this thread's allocations above `bytes` run out of memory.
class FailAllocationsAbove {
 public:
  explicit FailAllocationsAbove(std::size_t bytes) { t_failAbove = bytes; }
  ~FailAllocationsAbove() { t_failAbove = 0; }
};

using tpcsdk::ReplaceFirst;
using tpcsdk::TetherdocServer;
using tpcsdk::Utf16ToUtf8;

struct ReplaceCase {
  std::u16string text, pattern, replacement, expected;
  bool replaced;
};

class ReplaceFirstCases : public ::testing::TestWithParam<ReplaceCase> {};

TEST_P(ReplaceFirstCases, ReplacesOnlyTheFirstOccurrence) {
  ReplaceCase c = GetParam();
  EXPECT_EQ(ReplaceFirst(c.text, c.pattern, c.replacement), c.replaced);
  EXPECT_EQ(c.text, c.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, ReplaceFirstCases,
    ::testing::Values(ReplaceCase{u"a%sb%s", u"%s", u"X", u"aXb%s", true},
                      ReplaceCase{u"none here", u"%s", u"X", u"none here", false},
                      ReplaceCase{u"", u"%s", u"X", u"", false},
                      ReplaceCase{u"%s", u"%s", u"", u"", true},
                      ReplaceCase{u"a b c", u" ", u"_", u"a_b c", true}));

Json::Value Parse(const std::string& text) {
  Json::Value v;
  Json::Reader().parse(text, v);
  return v;
}

TEST(ReplyEnvelope, ReadsMembersAndDefaultsAbsentOnes) {
  struct Case {
    const char* json;
    int32_t ret;
    const char* message;
    int32_t returned;
    bool dataNull;
  } cases[] = {
      {R"({"ret":7,"message":"m","returned":3,"data":[1]})", 7, "m", 3, false},
      {R"({"data":{"a":1}})", 0, "", 0, false},
      {R"({})", 0, "", 0, true},
      {R"({"ret":0,"message":"","returned":0,"data":null})", 0, "", 0, true},
  };
  for (const Case& c : cases) {
    tpcsdk::ReplyRecord record{99, "old", 99};
    Json::Value data = "stale";
    tpcsdk::ParseReplyEnvelope(record, data, Parse(c.json));
    EXPECT_EQ(record.ret, c.ret) << c.json;
    EXPECT_EQ(record.message, c.message) << c.json;
    EXPECT_EQ(record.returned, c.returned) << c.json;
    EXPECT_EQ(data.isNull(), c.dataNull) << c.json;
  }
}

class Frame : public ::testing::Test {
 protected:
  TetherdocServer client{"de-DE", "My Doc Editor", "12.1.3"};
};

TEST_F(Frame, IdentityGoesOutUnescapedWithItsBlanks) {
  EXPECT_EQ(client.BuildClientQuery(), u"al=de-DE&cv=2.0.0.0&an=My Doc Editor&av=12.1.3");
  EXPECT_EQ(client.BuildRequestHeaders(),
            u"Content-type: application/json\r\n"
            u"X-tetherdoc-UA: al(de-DE);cv(2.0.0.0);an(My Doc Editor);av(12.1.3)\r\n"
            u"Accept-Language: de-DE\r\n");
  const std::string agent = Utf16ToUtf8(client.BuildUserAgent());
  EXPECT_EQ(agent.rfind("TDOC/2.0.0.0 ", 0), 0u) << agent;
  const std::string tail = " My_Doc_Editor/12.1.3 TPCSDK/12.1.3";
  ASSERT_GE(agent.size(), tail.size());
  EXPECT_EQ(agent.substr(agent.size() - tail.size()), tail) << agent;
}

TEST_F(Frame, TokenPlaceholdersFillFirstOccurrenceOnly) {
  Json::Value url(Json::objectValue);
  url["twice"] = "http://h/a/${access-token}/b/${access-token}";
  url["query"] = "http://h/q?access-token=%s&x=%s";
  url["both"] = "http://h/${access-token}?access-token=%s";
  url["neither"] = "http://h/plain";
  client.LoadApiTable(u"url", url);
  client.SetAccessToken(reinterpret_cast<TDC_LPCWSTR>(u"T0K+n/="));

  EXPECT_EQ(client.ResolveTokenUrl(u"twice"), u"http://h/a/T0K+n/=/b/${access-token}");
  EXPECT_EQ(client.ResolveTokenUrl(u"query"), u"http://h/q?access-token=T0K+n/=&x=%s");
  EXPECT_EQ(client.ResolveTokenUrl(u"both"), u"http://h/T0K+n/=?access-token=%s");
  EXPECT_EQ(client.ResolveTokenUrl(u"neither"), u"http://h/plain");
  EXPECT_EQ(client.ResolveTokenUrl(u"missing"), u"");
  EXPECT_EQ(client.GetApiUrl(u"url", u"TWICE"), u"");  // keys match in their case
}

TEST_F(Frame, TableTakesStringMembersAndOverwritesDuplicates) {
  client.LoadApiTable(u"url", Parse(R"({"a":"1","b":"2","a":"3"})"));
  EXPECT_EQ(client.GetApiUrl(u"url", u"a"), u"3");
  client.LoadApiTable(u"url", Parse(R"(["not","an","object"])"));
  EXPECT_EQ(client.GetApiUrl(u"url", u"b"), u"2");
}

TEST_F(Frame, UnloadedClientAnswersNotReadyAndKeepsOutsAlone) {
  TDC_LPWSTR out = nullptr;
  EXPECT_EQ(client.GetWebServiceUrl("tdc_users", &out), TDC_HRESULT_NOT_READY);
  client.GetDomain(&out);
  client.GetHost(&out);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(client.StopRequest(), 1);
  EXPECT_EQ(client.PendingRequests(), 0u);
}

TEST_F(Frame, AccessTokenRoundTripsAsUtf8) {
  client.SetAccessToken(reinterpret_cast<TDC_LPCWSTR>(u"t\u00F6ken"));
  char* out = nullptr;
  client.GetAccessToken(&out);
  ASSERT_NE(out, nullptr);
  EXPECT_STREQ(out, "t\xC3\xB6ken");
  EXPECT_EQ(TDC_ReleaseLPSTR(out), TDC_HRESULT_OK);
}

TEST_F(Frame, TokenWritersAndReadersNeverShareAString) {
  Json::Value url(Json::objectValue);
  url["t"] = "http://h/${access-token}";
  client.LoadApiTable(u"url", url);
  // Longer than any short-string buffer, so each assignment frees the old text.
  const std::u16string a(40, u'a'), b(90, u'b');
  std::atomic<int> writing{2};
  auto writer = [&](int parity) {
    for (int i = 0; i < 5000; ++i)
      client.SetAccessToken(reinterpret_cast<TDC_LPCWSTR>(((i + parity) % 2 ? a : b).c_str()));
    --writing;
  };
  std::thread first(writer, 0), second(writer, 1);
  size_t torn = 0, reads = 0;
  while (writing > 0 || reads == 0) {
    const std::u16string resolved = client.ResolveTokenUrl(u"t");
    if (resolved != u"http://h/" + a && resolved != u"http://h/" + b && resolved != u"http://h/")
      ++torn;
    ++reads;
  }
  first.join();
  second.join();
  EXPECT_EQ(torn, 0u) << "of " << reads;
}

// Memory running out inside the frame leaves no request listed, open or allocated
// (the sanitizer's leak check sees what a count cannot).
TEST(FrameOutOfMemory, HeadersThatCannotBeBuiltLeaveNoRequestListed) {
  // The headers carry the language twice; the user agent never does.
  constexpr size_t kLanguage = 200000;
  TetherdocServer client(std::string(kLanguage, 'l').c_str(), "App", "1.0");
  Json::Value reply;
  {
    FailAllocationsAbove fail(3 * kLanguage);
    EXPECT_THROW(client.RequestJson(reply, u"http://127.0.0.1:1/x", u"GET", ""), std::bad_alloc);
  }
  EXPECT_EQ(client.PendingRequests(), 0u);
  EXPECT_EQ(client.RequestJson(reply, u"http://127.0.0.1:1/x", u"GET", ""), TDC_HRESULT_HTTP_ERROR);
}

TEST(FrameOutOfMemory, ReplyThatCannotBeCopiedStillClosesAndFreesItsRequest) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  // A reply of 1 MiB with one byte that is not UTF-8: the text handed out is made
  // through UTF-16, twice the size of the body, and only that copy is too large.
  const std::string body = "{\"data\":\"" + std::string(1 << 20, 'x') + "\xff\"}";
  Json::Value rule;
  rule["method"] = "GET";
  rule["path"] = "/big";
  rule["status"] = 200;
  rule["body_b64"] = tpcsdk::Base64Encode(body.data(), static_cast<std::int32_t>(body.size()));
  rule["times"] = -1;
  ASSERT_NE(emu->Script(rule), 0u) << emu->last_error();
  TetherdocServer client("en-US", "App", "1.0");
  const std::u16string url = tpcsdk::Utf8ToUtf16(emu->base_url() + "/big");
  Json::Value reply;
  {
    // The body arrives on the HTTP client's threads; only the copy out fails.
    FailAllocationsAbove fail(3 << 19);
    EXPECT_THROW(client.RequestJson(reply, url, u"GET", ""), std::bad_alloc);
  }
  EXPECT_EQ(client.PendingRequests(), 0u);
  EXPECT_EQ(client.RequestJson(reply, url, u"GET", ""), TDC_HRESULT_OK);
}

}  // namespace
