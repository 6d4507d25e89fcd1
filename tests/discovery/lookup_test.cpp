// The directory look-ups behind slots 5 and 6: who the user is, which TXT record is
// asked for, which answers are believed, and that each look-up runs once.
#include <algorithm>

#include "discovery_fixture.h"
#include "platform/config_file.h"
#include "support/utf.h"

namespace discovery {
namespace {

using tpcsdk::os::kDnsTypeCname;
using tpcsdk::os::kDnsTypeText;


struct AnswerCase {
  const char* name;
  int type;
  std::vector<std::u16string> strings;
  std::optional<std::u16string> service;  // slot 5's host, when DNS gives it
  std::optional<std::u16string> update;   // slot 6's host
  bool service_invalid_line;
  bool update_invalid_line;
};

class DnsAnswer : public DiscoveryTest, public ::testing::WithParamInterface<AnswerCase> {};

TEST_P(DnsAnswer, IsBelievedOnlyWhenItsFirstStringLooksLikeAHost) {
  const AnswerCase& c = GetParam();
  directory_.JoinDomain(u"ann@b.c");
  directory_.Publish(u"tws-b-c.b.c", c.type, c.strings);
  directory_.Publish(u"tws-internal-update.b.c", c.type, c.strings);
  NewLoggingPlatform();
  EXPECT_EQ(Slot5(), (Found{TDC_HRESULT_OK, c.service.value_or(kDefaultHost)}));
  EXPECT_EQ(Logged("The DNS TXT string is Invalid"), c.service_invalid_line);
  NewLoggingPlatform();
  EXPECT_EQ(Slot6(), (Found{TDC_HRESULT_OK, c.update}));
  const std::vector<std::string> log = Log();
  const auto invalid_lines = std::count(log.begin(), log.end(), "The DNS TXT string is Invalid");
  EXPECT_EQ(static_cast<size_t>(invalid_lines), (c.service_invalid_line ? 1u : 0u) + (c.update_invalid_line ? 1u : 0u));
}

INSTANTIATE_TEST_SUITE_P(
    Answers, DnsAnswer,
    ::testing::Values(
        AnswerCase{"BareName", kDnsTypeText, {u"tdoc.b.com"}, u"tdoc.b.com", u"tdoc.b.com", false, false},
        AnswerCase{"PlainWords", kDnsTypeText, {u"v=spf1 include"}, std::nullopt, std::nullopt, true, true},
        AnswerCase{"NoStrings", kDnsTypeText, {}, std::nullopt, std::nullopt, true, true},
        // A first record of another type: only the update look-up tests (and rejects) it.
        AnswerCase{"CnameFirst", kDnsTypeCname, {}, std::nullopt, std::nullopt, false, true}),
    [](const auto& info) { return std::string(info.param.name); });

struct NameCase {
  const char* name;
  std::u16string user;
  const char* config;
  std::u16string service_record;
  std::u16string update_record;
};

class RecordName : public DiscoveryTest, public ::testing::WithParamInterface<NameCase> {};

TEST_P(RecordName, ComesFromTheUsersDomainAndTheSuffix) {
  const NameCase& c = GetParam();
  directory_.JoinDomain(c.user);
  NewPlatform();
  WriteConfig(c.config);
  Slot5();
  RemoveConfig();
  Slot6();
  EXPECT_EQ(directory_.Queries(), (std::vector<std::u16string>{c.service_record, c.update_record}));
}

INSTANTIATE_TEST_SUITE_P(
    Users, RecordName,
    ::testing::Values(
        NameCase{"Plain", u"ann@a.b.c", "{}", u"tws-a-b-c.a.b.c", u"tws-internal-update.a.b.c"},
        NameCase{"Suffix", u"ann@b.c", R"({"tDocDomain":"x.y"})", u"tws-b-c.x.y", u"tws-internal-update.b.c"},
        NameCase{"SecondAt", u"ann@b@c.d", "{}", u"tws-b@c-d.b@c.d", u"tws-internal-update.b@c.d"},
        NameCase{"NoAt", u"ann.b", "{}", u"tws-ann.b.", u"tws-internal-update.ann.b"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(DiscoveryTest, EachLookUpRunsOnceAndRemembersAnEmptyResult) {
  directory_.JoinDomain(u"ann@b.c");
  NewLoggingPlatform();
  EXPECT_EQ(Slot5().host, kDefaultHost);
  directory_.Publish(u"tws-b-c.b.c", kDnsTypeText, {u"https://late.b.com"});
  directory_.Publish(u"tws-internal-update.b.c", kDnsTypeText, {u"https://late.b.com"});
  EXPECT_EQ(Slot5().host, kDefaultHost);
  EXPECT_EQ(Slot6().host, u"https://late.b.com");
  EXPECT_EQ(Slot6().host, u"https://late.b.com");
  EXPECT_EQ(directory_.Queries(), (std::vector<std::u16string>{u"tws-b-c.b.c", u"tws-internal-update.b.c"}));
  const auto log = Log();
  EXPECT_EQ(std::count(log.begin(), log.end(), "Return the existing host from DNS. It may be empty."), 2);
}

TEST_F(DiscoveryTest, FailedQueryIsLoggedWithTheSystemsWords) {
  directory_.JoinDomain(u"ann@b.c");
  NewLoggingPlatform();
  EXPECT_EQ(Slot5().host, kDefaultHost);
  EXPECT_EQ(Slot6().host, std::nullopt);
  EXPECT_TRUE(Logged("The DNS TXT new name is = tws-b-c.b.c."));
  EXPECT_TRUE(Logged("new DNS DnsQuery_W failed. Error code = 9003."));
  EXPECT_TRUE(Logged("The new DNS DnsQuery_W error message = DNS name does not exist."));
  EXPECT_TRUE(Logged("The DNS TXT name is = tws-internal-update.b.c."));
  EXPECT_TRUE(Logged("DnsQuery_W failed. Error code = 9003."));
  EXPECT_TRUE(Logged("The DnsQuery_W error message = DNS name does not exist."));
  EXPECT_FALSE(Logged("The DNS TXT string is Invalid"));
}

struct IdentityCase {
  const char* name;
  void (*script)(FakeDirectory&);
  std::optional<std::u16string> record;  // the record asked for; none when not joined
  std::vector<std::string> lines;        // lines the chain writes, in order
};

class IdentityChain : public DiscoveryTest, public ::testing::WithParamInterface<IdentityCase> {};

TEST_P(IdentityChain, FindsTheUserInTheDomainOrTheCloudDirectory) {
  const IdentityCase& c = GetParam();
  c.script(directory_);
  NewLoggingPlatform();
  Slot5();
  const std::vector<std::u16string> expected =
      c.record ? std::vector<std::u16string>{*c.record} : std::vector<std::u16string>{};
  EXPECT_EQ(directory_.Queries(), expected);
  const std::vector<std::string> log = Log();
  auto at = log.begin();
  for (const std::string& line : c.lines) {
    at = std::find(at, log.end(), line);
    ASSERT_NE(at, log.end()) << line;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Users, IdentityChain,
    ::testing::Values(
        IdentityCase{"JoinQueryFails",
                     [](FakeDirectory& d) {
                       d.join_query_ok = false;
                       d.version_ok = false;
                     },
                     std::nullopt,
                     {"The current user is not joined to AAD because it is not win10 or greater.",
                      "The current user is not joined to AD or AAD."}},
        IdentityCase{"DomainUserNameFailsFallsToCloud",
                     [](FakeDirectory& d) {
                       d.JoinDomain(u"");
                       d.upn_ok = false;
                       d.upn_error = 1332;
                       d.cloud = {0, true, 1, true, u"eve@cloud.example"};
                     },
                     u"tws-cloud-example.cloud.example",
                     {"The current user is joined to AD.", "GetUserNameEx failed. Error code = 1332.",
                      "NetGetAadJoinInformation Join Type = 1.", "The current user is joined to AAD.",
                      "The user email joined to AAD is: eve@cloud.example.",
                      "The domain user name is = eve@cloud.example."}},
        IdentityCase{"OldSystemWithoutDomain", [](FakeDirectory& d) { d.major_version = 6; }, std::nullopt,
                     {"The current user is not joined to AD. Type:2.",
                      "The current user is not joined to AAD because it is not win10 or greater.",
                      "The current user is not joined to AD or AAD."}},
        IdentityCase{"CloudRecordNotJoined", [](FakeDirectory& d) { d.cloud = {0, true, 0, true, u"x@y.z"}; },
                     std::nullopt,
                     {"NetGetAadJoinInformation Join Type = 0.", "The current user is not joined to AAD. hr = 0.",
                      "pJoinInfo is NULL:0.", "The current user is not joined to AD or AAD."}},
        IdentityCase{"CloudJoinedWithoutEmail", [](FakeDirectory& d) { d.cloud = {0, true, 1, false, u""}; },
                     std::nullopt,
                     {"The current user is joined to AAD.", "The user email joined to AAD is: .",
                      "The current user is not joined to AD or AAD."}}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace discovery
