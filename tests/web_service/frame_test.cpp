// The request frame's pure parts: URL placeholders, identity texts, reply envelope.
#include <gtest/gtest.h>

#include <json/json.h>

#include "support/out_buffer.h"
#include "support/utf.h"
#include "web_service/tetherdoc_server.h"

namespace {

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

}  // namespace
