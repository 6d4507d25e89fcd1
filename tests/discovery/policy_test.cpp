// Slots 7 to 10 against the registry (wine's, or JSON hives on Linux) and a real
// ProfStore.xml: tenant value, preference store, DisableFindHost, last sign-in and
// the enterprise test.
#include <thread>

#include "discovery_fixture.h"
#include "os/paths.h"

namespace fs = std::filesystem;
using tpcsdk::os::RegRoot;

namespace discovery {
namespace {

const std::u16string kRegionalHost = tpcsdk::Utf8ToUtf16(TPCSDK_REGIONAL_CONFIG_HOST);
const std::u16string kVendor = u"SOFTWARE\\Tarvo Software\\";
const std::u16string kReader = u"Tarvo PDF Reader";
const std::u16string kEditor = u"Tarvo PDF Editor";
const std::u16string kSid = u"S-1-5-21-1004-1005-1006-1001";

// An item of ProfStore.xml with its text in the String attribute.
std::string Item(const char* name, const char* value) {
  return std::string("<I Text=\"") + name + "\" String=\"" + value + "\"/>";
}

class PolicyTest : public DiscoveryTest {
 protected:
  // SOFTWARE\Tarvo Software\<product> 12.0\<rest>
  static std::u16string ProductKey(const std::u16string& product, const std::u16string& rest) {
    return kVendor + product + u" 12.0\\" + rest;
  }
  static void SetTenant(const std::u16string& product, const std::u16string& host) {
    SetValue(RegRoot::kCurrentUser, ProductKey(product, u"plugins\\TDOCServer"), u"EnterpriseTenantDomain", host);
  }
  static void DisableFindHost(const std::u16string& product, const std::u16string& value) {
    SetValue(RegRoot::kCurrentUser, ProductKey(product, u"Tetherdoc"), u"DisableFindHost", value);
  }
  static void SetPolicyHost(const std::u16string& value_name, const std::u16string& host) {
    SetValue(RegRoot::kLocalMachine, u"Software\\Policies\\Tarvo\\PDFReader\\TDOC", value_name, host);
  }

  // An installation of the product in a folder of its own whose ProfStore.xml holds
  // the given items of Preferences.
  void Install(const std::u16string& product, const std::string& items) {
    installs_.push_back(std::make_unique<testkit::TempDir>());
    const fs::path dir = installs_.back()->path();
    fs::create_directories(dir / "ProfStore");
    testkit::WriteFile(dir / "ProfStore" / "ProfStore.xml",
                       "<?xml version=\"1.0\"?>\r\n<ProfStoreData><Profstore>\r\n  <Preferences><Group>" + items +
                           "</Group></Preferences>\r\n</Profstore></ProfStoreData>\r\n");
    SetValue(RegRoot::kLocalMachine, kVendor + product + u"\\", u"InstallPath",
             dir.u16string() + tpcsdk::os::kPathSeparator);
  }

 private:
  std::vector<std::unique_ptr<testkit::TempDir>> installs_;
};

struct TenantCase {
  const char* name;
  std::u16string app;
  std::u16string product;  // whose key slot 7 reads
};

class TenantValue : public PolicyTest, public ::testing::WithParamInterface<TenantCase> {};

TEST_P(TenantValue, IsReadFromTheProductKeyTheApplicationNameSelects) {
  SetTenant(GetParam().product, u"https://tenant.example.com");
  SetTenant(GetParam().product == kEditor ? kReader : kEditor, u"https://other.example.com");
  NewPlatform();
  EXPECT_EQ(Slot7(GetParam().app), (Found{TDC_HRESULT_OK, u"https://tenant.example.com"}));
}

INSTANTIATE_TEST_SUITE_P(Applications, TenantValue,
                         ::testing::Values(TenantCase{"BrindlePDFSelectsTheEditorsKey", u"Tarvo BrindlePDF", kEditor},
                                           TenantCase{"WordEditorSelectsTheEditorsKey", u"My Editor", kEditor},
                                           TenantCase{"AnyOtherNameSelectsTheReadersKey", u"Tarvo Reader", kReader}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(PolicyTest, TenantValueLeavesThePreferenceStoreUnmade) {
  SetTenant(kReader, u"https://tenant.example.com");
  Install(kEditor, Item("TDOCServer", "https://editor-file.example.com"));
  NewLoggingPlatform();
  EXPECT_EQ(Slot7(u"Tarvo Reader").host, u"https://tenant.example.com");
  // The store is made by the first call that needs it, with that call's product.
  EXPECT_EQ(Slot7(u"Tarvo BrindlePDF"), (Found{TDC_HRESULT_OK, u"https://editor-file.example.com"}));
  const std::vector<std::string> log = Log();
  const std::string key = "SOFTWARE\\Tarvo Software\\Tarvo PDF Reader 12.0\\plugins\\TDOCServer\\";
  const std::vector<std::string> tenant_call(log.begin(), log.begin() + std::min<size_t>(log.size(), 4));
  EXPECT_EQ(tenant_call, (std::vector<std::string>{"GetRecordHostFromGPO Begin:",
                                                   "GetRecordHostFromGPO: from strRegPath = " + key,
                                                   "GetRecordHostFromGPO success:",
                                                   "GetRecordHostFromGPO: Host = https://tenant.example.com"}));
  EXPECT_TRUE(Logged("GetRecordHostFromGPO ProfStore success:"));
}

TEST_F(PolicyTest, FirstStoreHoldsForThePlatformsLifeAndEndsWithIt) {
  Install(kReader, Item("TDOCServer", "https://reader-file.example.com") + Item("InternalUpdate", "https://upd"));
  Install(kEditor, Item("TDOCServer", "https://editor-file.example.com"));
  NewPlatform();
  EXPECT_EQ(Slot8(u"Tarvo Reader"), (Found{TDC_HRESULT_OK, u"https://upd"}));
  EXPECT_EQ(Slot7(u"Tarvo BrindlePDF").host, u"https://reader-file.example.com");
  NewPlatform();
  EXPECT_EQ(Slot7(u"Tarvo BrindlePDF").host, u"https://editor-file.example.com");
}

struct StoreCase {
  const char* name;
  std::string items;                     // of ProfStore.xml; none installed when empty
  std::u16string machine_policy;         // TDOCServer of the machine's policy, when not empty
  int result;
  std::u16string host;                   // empty: none
  std::vector<std::string> slot7_lines;  // lines slot 7 writes after the store path
};

class PreferenceStore : public PolicyTest, public ::testing::WithParamInterface<StoreCase> {};

TEST_P(PreferenceStore, GivesTheServiceHost) {
  const StoreCase& c = GetParam();
  if (!c.items.empty()) Install(kReader, c.items);
  if (!c.machine_policy.empty()) SetPolicyHost(u"TDOCServer", c.machine_policy);
  NewLoggingPlatform();
  EXPECT_EQ(Slot7(u"Tarvo Reader"), Expected(c.result, c.host));
  const std::vector<std::string> log = Log();
  ASSERT_GE(log.size(), 3 + c.slot7_lines.size());
  EXPECT_EQ(log[1], "GetRecordHostFromGPO: from strRegPath fail");
  EXPECT_EQ(log[2].rfind("ProfStore path: ", 0), 0u);
  EXPECT_EQ(std::vector<std::string>(log.begin() + 3, log.end()), c.slot7_lines);
}

INSTANTIATE_TEST_SUITE_P(
    Sources, PreferenceStore,
    ::testing::Values(
        StoreCase{"File", Item("TDOCServer", " https://file.example.com "), u"https://policy",
                  TDC_HRESULT_OK, u"https://file.example.com",
                  {"GetRecordHostFromGPO ProfStore success:", "GetRecordHostFromGPO: Host = https://file.example.com"}},
        // The store counts a blank value as none: a failed read.
        StoreCase{"BlankInFile", Item("TDOCServer", "  "), u"https://policy",
                  TDC_HRESULT_FAILED, u"",
                  {"GetRecordHostFromGPO Fail: GetTDOCServerURL return Empty"}},
        StoreCase{"Nowhere", "", u"", TDC_HRESULT_FAILED, u"",
                  {"GetRecordHostFromGPO Fail: GetTDOCServerURL return Empty"}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(PolicyTest, UpdateHostSlotHasNoBeginNoTenantAndLogsEvenAnEmptyHost) {
  SetTenant(kReader, u"https://tenant.example.com");
  SetPolicyHost(u"InternalUpdate", u"");
  NewLoggingPlatform();
  EXPECT_EQ(Slot8(u"Tarvo Reader"), (Found{TDC_HRESULT_OK, std::nullopt}));
  EXPECT_EQ(Log(), std::vector<std::string>{"GetRecordHostFromGPO: Host = "});
  // Without any InternalUpdate the read fails, and nothing more is written.
  ClearRegistry();
  NewLoggingPlatform();
  EXPECT_EQ(Slot8(u"Tarvo Reader"), (Found{TDC_HRESULT_FAILED, std::nullopt}));
  EXPECT_EQ(Log(), (std::vector<std::string>{"GetRecordHostFromGPO: Host = ", "file close"}));
}

struct DisableCase {
  const char* name;
  std::u16string value;
  std::u16string product;  // whose key holds it
  std::u16string app;      // given to slot 7
  bool disabled;
};

class FindHostSwitch : public PolicyTest, public ::testing::WithParamInterface<DisableCase> {};

TEST_P(FindHostSwitch, TakesEffectInSlotsFiveAndSixOnceSlotSevenReadIt) {
  const DisableCase& c = GetParam();
  DisableFindHost(c.product, c.value);
  directory_.JoinDomain(u"ann@b.c");
  NewLoggingPlatform();
  Slot5();  // before slot 7 the switch isn't known: DNS is asked
  EXPECT_EQ(directory_.Queries().size(), 1u);
  Slot7(c.app);
  EXPECT_EQ(Slot5().host, kDefaultHost);
  EXPECT_EQ(Slot6().host, std::nullopt);
  EXPECT_EQ(directory_.Queries().size(), c.disabled ? 1u : 2u);
  EXPECT_EQ(Logged("Disable Find Host From DNS. It must be empty."), c.disabled);
  EXPECT_EQ(Logged("Disable Find Update Host From DNS. It must be empty."), c.disabled);
}

INSTANTIATE_TEST_SUITE_P(
    Values, FindHostSwitch,
    ::testing::Values(DisableCase{"TrueInSmallLetters", u"true", kReader, u"Tarvo Reader", true},
                      DisableCase{"BrindlePDFReadsTheEditorsSwitch", u"TRUE", kEditor, u"Tarvo BrindlePDF", true},
                      DisableCase{"OneIsNotTrue", u"1", kReader, u"Tarvo Reader", false},
                      // "Editor" alone doesn't make the Editor here: the Reader's key is read.
                      DisableCase{"WordEditorAloneReadsTheReadersSwitch", u"true", kEditor, u"Tarvo PDF Editor", false}),
    [](const auto& info) { return std::string(info.param.name); });

struct LoginCase {
  const char* name;
  std::vector<std::pair<std::u16string, std::u16string>> values;  // in the order written
  std::u16string user;
  int result;
  std::u16string host;  // empty: none
};

class LastSignIn : public PolicyTest, public ::testing::WithParamInterface<LoginCase> {};

TEST_P(LastSignIn, IsTheFirstServiceMarkedOne) {
  const LoginCase& c = GetParam();
  const std::u16string key = (c.user.empty() ? u"" : c.user + u"\\") + kVendor +
                             u"Tarvo BrindlePDF 12.0\\plugins\\TDOCServer\\LoginedService";
  const RegRoot root = c.user.empty() ? RegRoot::kCurrentUser : RegRoot::kUsers;
  for (const auto& [name, text] : c.values) SetValue(root, key, name, text);
  if (c.values.empty()) tpcsdk::os::CloseRegKey(tpcsdk::os::CreateRegKey(root, key));
  NewLoggingPlatform();
  EXPECT_EQ(Slot9(u"Tarvo BrindlePDF", c.user), Expected(c.result, c.host));
  EXPECT_EQ(Logged("GetRecordHostFromLastDefaultLogined: Host = " + tpcsdk::Utf16ToUtf8(c.host)), !c.host.empty());
}

INSTANTIATE_TEST_SUITE_P(
    Records, LastSignIn,
    ::testing::Values(
        LoginCase{"FirstOfTwo", {{u"https://a.example.com", u"1"}, {u"https://b.example.com", u"1"}}, u"",
                  TDC_HRESULT_OK, u"https://a.example.com"},
        LoginCase{"TwoSkipped", {{u"https://a.example.com", u"2"}, {u"https://b.example.com", u"1"}}, u"",
                  TDC_HRESULT_OK, u"https://b.example.com"},
        LoginCase{"NoValues", {}, u"", TDC_HRESULT_FAILED, u""},
        LoginCase{"OtherUser", {{u"https://u.example.com", u"1"}}, kSid, TDC_HRESULT_OK, u"https://u.example.com"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(PolicyTest, LastSignInWithoutKeyOrUserFindsNothing) {
  NewPlatform();
  EXPECT_EQ(Slot9(u"Tarvo BrindlePDF", u""), (Found{TDC_HRESULT_FAILED, std::nullopt}));
  TDC_LPWSTR out = nullptr;
  IPDFPlatform* p = Object();
  EXPECT_EQ(p->GetRecordHostFromLastDefaultLogined(&out, W(u"Tarvo BrindlePDF"), W(u"12.1"), nullptr),
            TDC_HRESULT_FAILED);
}

struct EnterpriseCase {
  const char* name;
  std::u16string registry_test;  // Test of the plug-in key, when not empty
  std::u16string tenant;
  std::u16string policy_host;
  std::optional<std::string> config;
  bool joined;         // the user's domain publishes https://dns.b.com
  bool find_disabled;
  int expected;
};

class EnterpriseEnv : public PolicyTest, public ::testing::WithParamInterface<EnterpriseCase> {};

TEST_P(EnterpriseEnv, AnswersWhetherTheHostIsNotTheRegionalOne) {
  const EnterpriseCase& c = GetParam();
  if (!c.registry_test.empty())
    SetValue(RegRoot::kCurrentUser, ProductKey(kReader, u"plugins\\TDOCServer"), u"Test", c.registry_test);
  if (!c.tenant.empty()) SetTenant(kReader, c.tenant);
  if (!c.policy_host.empty()) SetPolicyHost(u"TDOCServer", c.policy_host);
  if (c.find_disabled) DisableFindHost(kReader, u"true");
  if (c.joined) directory_.JoinDomain(u"ann@b.c");
  directory_.Publish(u"tws-b-c.b.c", tpcsdk::os::kDnsTypeText, {u"https://dns.b.com"});
  NewPlatform();
  if (c.config) WriteConfig(*c.config);
  EXPECT_EQ(Slot10(u"Tarvo Reader"), c.expected);
  EXPECT_EQ(directory_.Queries().empty(), !c.joined || c.find_disabled);
}

const std::u16string kRegionalInCapitals = [] {
  std::u16string s = kRegionalHost;
  for (char16_t& ch : s)
    if (ch >= u'a' && ch <= u'z') ch = static_cast<char16_t>(ch - 32);
  return s;
}();

INSTANTIATE_TEST_SUITE_P(
    Sources, EnterpriseEnv,
    ::testing::Values(
        EnterpriseCase{"RegistryTestBeatsTenant", u"TRUE", u"https://t", u"", std::nullopt, false, false, 0},
        EnterpriseCase{"Tenant", u"", u"https://t", u"", std::nullopt, false, false, 1},
        EnterpriseCase{"PolicyIsRegional", u"", u"", kRegionalInCapitals, R"({"env":"https://e"})", false, false, 0},
        EnterpriseCase{"PolicyElsewhere", u"", u"", u"https://p", std::nullopt, false, false, 1},
        EnterpriseCase{"FileEnv", u"", u"", u"", R"({"env":"https://e"})", false, false, 1},
        EnterpriseCase{"FileTestExact", u"", u"", u"", R"({"env":"https://e","Test":"true"})", false, false, 0},
        EnterpriseCase{"FileTestCapitals", u"", u"", u"", R"({"env":"https://e","Test":"TRUE"})", false, false, 1},
        EnterpriseCase{"NothingAnywhere", u"", u"", u"", std::nullopt, false, false, 0},
        EnterpriseCase{"DnsHost", u"", u"", u"", std::nullopt, true, false, 1},
        EnterpriseCase{"DnsDisabled", u"", u"", u"", R"({"env":""})", true, true, 0}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(PolicyTest, SlotsNineAndTenRunWhileALookUpHoldsTheLock) {
  directory_.JoinDomain(u"ann@b.c");
  SetTenant(kReader, u"https://tenant.example.com");
  testkit::Signal in_dns, release;
  directory_.on_query = [&] {
    in_dns.Set();
    release.WaitFor(std::chrono::seconds(30));
  };
  NewPlatform();
  std::thread service([&] { Slot5(); });
  ASSERT_TRUE(in_dns.WaitFor(std::chrono::seconds(10)));
  // Slot 6 would answer from the file at once, but has to wait for the lock.
  WriteConfig(R"({"upd":"https://upd.example.com"})");
  testkit::Signal update_started, update_done;
  Found update{};
  std::thread update_thread([&] {
    update_started.Set();
    update = Slot6();
    update_done.Set();
  });
  ASSERT_TRUE(update_started.WaitFor(std::chrono::seconds(10)));
  // Slot 9 and slot 10 (answering from the tenant value) take no lock.
  EXPECT_EQ(Slot9(u"Tarvo Reader", u"").result, TDC_HRESULT_FAILED);
  EXPECT_EQ(Slot10(u"Tarvo Reader"), 1);
  // Slot 6 has been running all this while and is still held at the lock.
  EXPECT_FALSE(update_done.WaitFor(std::chrono::milliseconds(200)));
  release.Set();
  service.join();
  EXPECT_TRUE(update_done.WaitFor(std::chrono::seconds(10)));
  update_thread.join();
  EXPECT_EQ(update, (Found{TDC_HRESULT_OK, u"https://upd.example.com"}));
}

}  // namespace
}  // namespace discovery
