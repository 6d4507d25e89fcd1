// The configuration file beside the module and the EnableLogging marker: what the
// constructor takes from them, and what slots 5 and 6 read on every call.
#include <filesystem>

#include "discovery_fixture.h"
#include "platform/config_file.h"
#include "support/utf.h"

namespace fs = std::filesystem;

namespace discovery {
namespace {


struct LoggingCase {
  const char* name;
  const char* config;  // null: no file
  bool marker;
  const char* product;  // the product folder of the log, or null when logging stays off
};

class ConstructorLogging : public DiscoveryTest, public ::testing::WithParamInterface<LoggingCase> {};

TEST_P(ConstructorLogging, FollowsTheFileAndOnlyWithoutItTheMarker) {
  const LoggingCase& c = GetParam();
  if (c.config) WriteConfig(c.config);
  if (c.marker) WriteMarker();
  NewPlatform();
  if (c.product) {
    ASSERT_NE(Object()->Log(), nullptr);
    EXPECT_FALSE(fs::is_empty(LogFolder(c.product)));
  } else {
    EXPECT_EQ(Object()->Log(), nullptr);
    EXPECT_FALSE(fs::exists(LogFolder("Tarvo PDF Reader")));
    EXPECT_FALSE(fs::exists(LogFolder("Tarvo PDF Editor")));
  }
}

INSTANTIATE_TEST_SUITE_P(
    Files, ConstructorLogging,
    ::testing::Values(
        LoggingCase{"NoFileNoMarker", nullptr, false, nullptr},
        LoggingCase{"NoFileMarker", nullptr, true, "Tarvo PDF Reader"},
        LoggingCase{"EmptyObjectAndMarker", "{}", true, nullptr},
        LoggingCase{"EmptyFileAndMarker", "", true, nullptr},
        LoggingCase{"CapitalOn", R"({"logfile":"ON"})", false, nullptr},
        LoggingCase{"On", R"({"logfile":"on"})", false, "Tarvo PDF Reader"},
        LoggingCase{"AppTypeBrindleLogsForTheEditor", R"({"logfile":"on","appType":"BrindlePDF 12"})", false,
                    "Tarvo PDF Editor"},
        // A member of the wrong type stops the reading; nothing escapes the constructor.
        LoggingCase{"LogfileArray", R"({"logfile":["on"]})", true, nullptr}),
    [](const auto& info) { return std::string(info.param.name); });

struct HostCase {
  const char* name;
  const char* config;  // null: no file
  bool dns_asked;
  std::u16string host;
};

class ServiceHostFromFile : public DiscoveryTest, public ::testing::WithParamInterface<HostCase> {};

TEST_P(ServiceHostFromFile, TakesEnvOrAsksDnsThenFallsBackToTheDefault) {
  const HostCase& c = GetParam();
  directory_.JoinDomain(u"ann@b.c");
  NewPlatform();
  if (c.config) WriteConfig(c.config);
  const Found found = Slot5();
  EXPECT_EQ(found.result, TDC_HRESULT_OK);
  EXPECT_EQ(found.host, c.host);
  EXPECT_EQ(directory_.Queries().size(), c.dns_asked ? 1u : 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Files, ServiceHostFromFile,
    ::testing::Values(HostCase{"NoFile", nullptr, true, kDefaultHost},
                      HostCase{"Env", R"({"env":"https://env.example.com"})", false, u"https://env.example.com"},
                      HostCase{"EnvEmpty", R"({"env":""})", true, kDefaultHost},
                      HostCase{"NotJson", "env=https://env.example.com", true, kDefaultHost},
                      HostCase{"EmptyFile", "", true, kDefaultHost}),
    [](const auto& info) { return std::string(info.param.name); });

class UpdateHostFromFile : public DiscoveryTest, public ::testing::WithParamInterface<HostCase> {};

TEST_P(UpdateHostFromFile, TakesUpdAndAsksDnsOnlyWithoutAFile) {
  const HostCase& c = GetParam();
  directory_.JoinDomain(u"ann@b.c");
  directory_.Publish(u"tws-internal-update.b.c", tpcsdk::os::kDnsTypeText, {u"https://dns-upd.b.com"});
  NewPlatform();
  if (c.config) WriteConfig(c.config);
  const Found found = Slot6();
  EXPECT_EQ(found.result, TDC_HRESULT_OK);
  if (c.host.empty()) {
    EXPECT_EQ(found.host, std::nullopt);
  } else {
    EXPECT_EQ(found.host, c.host);
  }
  EXPECT_EQ(directory_.Queries().size(), c.dns_asked ? 1u : 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Files, UpdateHostFromFile,
    ::testing::Values(HostCase{"NoFile", nullptr, true, u"https://dns-upd.b.com"},
                      HostCase{"Upd", R"({"upd":"https://upd.example.com"})", false, u"https://upd.example.com"},
                      HostCase{"NoUpd", R"({"env":"https://env.example.com"})", false, u""},
                      HostCase{"EmptyFile", "", false, u""}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(DiscoveryTest, MemberOfTheWrongTypeFailsTheSlotWithoutTouchingOut) {
  NewPlatform();
  WriteConfig(R"({"env":["https://a.example.com"],"upd":{"x":1}})");
  EXPECT_EQ(Slot5().result, TDC_HRESULT_FAILED);
  EXPECT_EQ(Slot5().host, std::nullopt);
  EXPECT_EQ(Slot6().result, TDC_HRESULT_FAILED);
  EXPECT_EQ(Slot6().host, std::nullopt);
  EXPECT_EQ(Slot10(u"Tarvo Reader"), 0);
  EXPECT_TRUE(directory_.Queries().empty());
  // The slot's lock was let go on the way out.
  WriteConfig(R"({"env":"https://a.example.com"})");
  EXPECT_EQ(Slot5().host, u"https://a.example.com");
}

TEST_F(DiscoveryTest, FileTooLargeToHoldFailsTheFileReaders) {
  NewPlatform();
  WriteConfig("{}");
  std::error_code ec;
  fs::resize_file(fs::path(tpcsdk::ConfigFilePath()), (std::uintmax_t{1} << 31) + 16, ec);
  if (ec) GTEST_SKIP() << "no sparse file here: " << ec.message();
  EXPECT_EQ(Slot5(), (Found{TDC_HRESULT_FAILED, std::nullopt}));
  EXPECT_EQ(Slot6(), (Found{TDC_HRESULT_FAILED, std::nullopt}));
  // Slot 10 can't hold the file either: it answers no and doesn't go on to DNS.
  directory_.JoinDomain(u"ann@b.c");
  EXPECT_EQ(Slot10(u"Tarvo Reader"), 0);
  EXPECT_TRUE(directory_.Queries().empty());
}

TEST_F(DiscoveryTest, DomainSuffixIsTakenAndClearedOnEveryRead) {
  directory_.JoinDomain(u"ann@b.c");
  NewPlatform();
  // The first read takes the suffix, a later one without it clears it again, so the
  // DNS record asked for at last carries the user's own domain.
  WriteConfig(R"({"env":"https://env.example.com","tDocDomain":"x.y"})");
  EXPECT_EQ(Slot5().host, u"https://env.example.com");
  WriteConfig(R"({"env":""})");
  Slot5();
  EXPECT_EQ(directory_.Queries(), std::vector<std::u16string>{u"tws-b-c.b.c"});
}

TEST_F(DiscoveryTest, LoggingSwitchedOnLaterOpensNoLog) {
  NewPlatform();
  WriteConfig(R"({"env":"https://env.example.com","logfile":"on"})");
  Slot5();
  EXPECT_EQ(Object()->Log(), nullptr);
  EXPECT_FALSE(fs::exists(LogFolder()));
}

TEST_F(DiscoveryTest, ServiceHostSlotLogsItsPath) {
  NewLoggingPlatform();
  const std::string path = tpcsdk::Utf16ToUtf8(tpcsdk::ConfigFilePath());
  Slot5();
  WriteConfig(R"({"env":"https://env.example.com"})");
  Slot5();
  const std::vector<std::string> expected = {
      "GetRecordHostFromConfig Begin:", "Open Configfile fail: " + path,
      "Host URL is empty. Start to look up DNS.", "The current user is not joined to AD. Type:2.",
      "The current user is not joined to AAD. hr = 0.", "pJoinInfo is NULL:1.",
      "The current user is not joined to AD or AAD.", "Host URL is empty. Set the default host URL.",
      "ConfigPath: " + path, "GetRecordHostFromConfig: Host = " TPCSDK_DEFAULT_SERVICE_HOST,
      "GetRecordHostFromConfig Begin:", "Open Configfile Success: " + path, "ConfigPath: " + path,
      "GetRecordHostFromConfig: Host = https://env.example.com"};
  EXPECT_EQ(Log(), expected);
}

TEST_F(DiscoveryTest, UpdateHostSlotSaysItSetsTheDefaultButHandsOutNothing) {
  NewLoggingPlatform();
  EXPECT_EQ(Slot6(), (Found{TDC_HRESULT_OK, std::nullopt}));
  EXPECT_TRUE(Logged("Update Host URL is empty. Start to look up DNS."));
  EXPECT_TRUE(Logged("Host URL is empty. Set the default host URL."));
  EXPECT_FALSE(Logged("GetRecordHostFromConfig Begin:"));
}

}  // namespace
}  // namespace discovery
