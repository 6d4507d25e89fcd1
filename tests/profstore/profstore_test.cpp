#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "os/paths.h"
#include "profstore/profstore_ex.h"
#include "profstore/registry_fixture.h"
#include "support/utf.h"

namespace {

namespace os = tpcsdk::os;
using os::RegRoot;
using tpcsdk::CProfstoreEx;

constexpr RegRoot kMachine = RegRoot::kLocalMachine;
constexpr RegRoot kUser = RegRoot::kCurrentUser;
const std::u16string kReaderKey = u"Software\\Policies\\Tarvo\\PDFReader";
const std::u16string kReaderPolicy = kReaderKey + u"\\";

// A store over the registry of the fixture and a ProfStore.xml in its directory.
class Store : public regtest::RegistryTest {
 protected:
  // Writes ProfStore.xml with the given items of the Preferences section and other
  // sections, and creates a reader's store (kind 0) over it.
  std::unique_ptr<CProfstoreEx> Make(const std::string& preferences, const std::string& more = "",
                                     int32_t kind = 0, const std::u16string& version = u"11.2") {
    const auto file = dir_.path() / "ProfStore.xml";
    testkit::WriteFile(file, "\xEF\xBB\xBF<?xml version=\"1.0\"?>\r\n<ProfStoreData><Profstore>\r\n"
                             "  <Preferences><Group>" + preferences + "</Group></Preferences>\r\n" +
                                 more + "</Profstore></ProfStoreData>\r\n");
    auto store = std::make_unique<CProfstoreEx>();
    store->Init(kind, tpcsdk::Utf8ToUtf16(file.u8string()), version);
    return store;
  }
};

// ---- Text shape: file, then machine policy, then user policy. ----

struct TextSlot {
  const char* item;         // in the file
  const char* attr;         // of the item
  const char16_t* sub_key;  // under the product's policy key
  const char16_t* value;    // policy value name
  int (::IProfstore::*get)(std::u16string&);
};

class TextShape : public Store, public ::testing::WithParamInterface<TextSlot> {};

TEST_P(TextShape, FileThenMachineThenUser) {
  const TextSlot& s = GetParam();
  const std::string file_item =
      std::string("<I Text=\" ") + s.item + " \" " + s.attr + "=\"from-file\"/>";
  SetString(kMachine, kReaderPolicy + s.sub_key, s.value, u"from-machine");
  SetString(kUser, kReaderPolicy + s.sub_key, s.value, u"from-user");
  const std::u16string expected[] = {u"from-file", u"from-machine", u"from-user"};
  for (int stage = 0; stage < 4; ++stage) {
    auto store = Make(stage == 0 ? file_item : "");
    std::u16string out = u"untouched";
    EXPECT_EQ(((*store).*s.get)(out), stage < 3 ? 1 : 0) << stage;
    EXPECT_EQ(out, stage < 3 ? expected[stage] : u"untouched") << stage;
    if (stage == 1) os::DeleteRegTree(kMachine, kReaderKey);
    if (stage == 2) os::DeleteRegTree(kUser, kReaderKey);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Slots, TextShape,
    ::testing::Values(
        TextSlot{"PrinterName", "Title", u"Preferences", u"PrinterName", &::IProfstore::GetPrinterName},
        TextSlot{"DistName", "Title", u"Preferences", u"DistName", &::IProfstore::GetDistName},
        TextSlot{"MainFrameName", "Title", u"Preferences", u"MainframeName", &::IProfstore::GetMainFrameName},
        TextSlot{"TDOCServer", "String", u"TDOC", u"TDOCServer", &::IProfstore::GetTDOCServerURL},
        TextSlot{"InternalUpdate", "String", u"TDOC", u"InternalUpdate", &::IProfstore::GetInternalUpdate},
        TextSlot{"TutorialsUrl", "String", u"Preferences", u"TutorialsUrl", &::IProfstore::GetTutorialsUrl}));

TEST_F(Store, ServiceUrlIsTrimmedAndBlanksInTheFileEndTheSearch) {
  SetString(kMachine, kReaderPolicy + u"TDOC", u"TDOCServer", u"  https://policy  ");
  std::u16string out = u"untouched";
  EXPECT_EQ(Make("<I Text=\"TDOCServer\" String=\"   \"/>")->GetTDOCServerURL(out), 0);
  EXPECT_EQ(out, u"untouched");
  EXPECT_EQ(Make("")->GetTDOCServerURL(out), 1);
  EXPECT_EQ(out, u"https://policy");
}

// ---- Mode shape: an integer from the file's Mode, else a 32-bit policy value. ----

struct ModeSlot {
  const char* name;
  const char16_t* sub_key;
  std::function<int(::IProfstore&, int32_t&)> get;  // the output as an integer
  std::function<int32_t(int32_t)> expect;                // the raw value as the slot gives it
};

int32_t Raw(int32_t v) { return v; }
int32_t NotZero(int32_t v) { return v != 0; }
int32_t IsZero(int32_t v) { return v == 0; }

template <int (::IProfstore::*Get)(bool&)>
int Flag(::IProfstore& s, int32_t& out) {
  bool b = out != 0;
  int r = (s.*Get)(b);
  out = b;
  return r;
}

class ModeShape : public Store, public ::testing::WithParamInterface<ModeSlot> {};

TEST_P(ModeShape, FileThenMachineThenUser) {
  const ModeSlot& s = GetParam();
  SetDword(kMachine, kReaderPolicy + s.sub_key, tpcsdk::Utf8ToUtf16(s.name), 0);
  SetDword(kUser, kReaderPolicy + s.sub_key, tpcsdk::Utf8ToUtf16(s.name), 5);
  const int32_t raw[] = {7, 0, 5};
  for (int stage = 0; stage < 3; ++stage) {
    auto store = Make(stage == 0 ? std::string("<I Text=\"") + s.name + "\" Mode=\" 7 \"/>" : "");
    int32_t out = -3;
    EXPECT_EQ(s.get(*store, out), 1) << stage;
    EXPECT_EQ(out, s.expect(raw[stage])) << stage;
    if (stage == 1) os::DeleteRegTree(kMachine, kReaderKey);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Slots, ModeShape,
    ::testing::Values(
        ModeSlot{"InternetConnection", u"Preferences",
                 [](auto& s, int32_t& o) { return s.GetDisableInternet(o); }, IsZero},
        ModeSlot{"CollectData", u"Preferences", [](auto& s, int32_t& o) { return s.GetCollectData(o); }, NotZero},
        ModeSlot{"bCheckAddinOutputPDF", u"Preferences",
                 [](auto& s, int32_t& o) { return s.GetCheckAddinOutputPDF(o); }, Raw},
        ModeSlot{"bCheckAddinViewPDF", u"Preferences",
                 [](auto& s, int32_t& o) { return s.GetCheckAddinViewPDF(o); }, Raw},
        ModeSlot{"bCheckAddinAttachments", u"Preferences",
                 [](auto& s, int32_t& o) { return s.GetCheckAddinAttachments(o); }, Raw},
        ModeSlot{"disableTetherdoc", u"TDOC", Flag<&::IProfstore::GetDisableTetherdoc>, NotZero},
        ModeSlot{"GPOAppendMode", u"Preferences", Flag<&::IProfstore::GetGPOAppendMode>, NotZero},
        ModeSlot{"AutoConvertTetherdoc", u"TDOC\\Preferences",
                 Flag<&::IProfstore::GetAutoConvertTetherdoc>, NotZero},
        ModeSlot{"OfficeAutoConvertTetherdoc", u"TDOC\\Preferences",
                 Flag<&::IProfstore::GetOfficeAutoConvertTetherdoc>, NotZero},
        ModeSlot{"DisableMajorUpdate", u"Preferences", Flag<&::IProfstore::GetDisableMajorUpdate>,
                 NotZero}));

TEST_F(Store, ModeEdgeCases) {
  bool flag = true;
  int32_t n = 9;
  // Letters are a hit with the value 0; blanks are a miss that ends the search.
  SetDword(kMachine, kReaderPolicy + u"Preferences", u"GPOAppendMode", 1);
  EXPECT_EQ(Make("<I Text=\"GPOAppendMode\" Mode=\"on\"/>")->GetGPOAppendMode(flag), 1);
  EXPECT_FALSE(flag);
  EXPECT_EQ(Make("<I Text=\"GPOAppendMode\" Mode=\" \"/>")->GetGPOAppendMode(flag), 0);
  // Attribute names keep their case.
  EXPECT_EQ(Make("<I Text=\"bCheckAddinViewPDF\" mode=\"4\"/>")->GetCheckAddinViewPDF(n), 0);
  EXPECT_EQ(n, 9);
}

TEST_F(Store, AddinSettingsTakeWhatIsFound) {
  int32_t a = 7, b = 7, c = 7;
  EXPECT_EQ(Make("")->GetAddinSettings(a, b, c), 0);
  SetDword(kUser, kReaderPolicy + u"Preferences", u"bCheckAddinAttachments", 5);
  EXPECT_EQ(Make("<I Text=\"bCheckAddinOutputPDF\" Mode=\"0\"/>")->GetAddinSettings(a, b, c), 1);
  EXPECT_EQ(a, 0);
  EXPECT_EQ(b, 7);
  EXPECT_EQ(c, 1);
}

// ---- The application's own keys after file and policy (slots 4 and 6). ----

TEST_F(Store, DisableInternetFallsBackOnTheApplicationKeys) {
  const std::u16string reader = u"SOFTWARE\\Tarvo Software\\Tarvo PDF Reader";
  const std::u16string editor = u"SOFTWARE\\Tarvo Software\\Tarvo PDF Editor";
  int32_t out = 0;
  EXPECT_EQ(Make("")->GetDisableInternet(out), 0);
  EXPECT_EQ(out, 0);
  SetString(kUser, reader + u"\\11.0\\Preferences\\General", u"bDisableInternet", u"3");
  EXPECT_EQ(Make("")->GetDisableInternet(out), 0);
  EXPECT_EQ(out, 3);
  // The machine's value comes first; the user's is read only while the output is 0.
  SetString(kMachine, reader, u"bDisableInternet", u"1");
  out = 0;
  EXPECT_EQ(Make("")->GetDisableInternet(out), 0);
  EXPECT_EQ(out, 1);
  SetString(kMachine, reader, u"bDisableInternet", u"0");
  EXPECT_EQ(Make("")->GetDisableInternet(out), 0);
  EXPECT_EQ(out, 3);
  // The editor reads its own key, and its user key by the normalised version.
  SetString(kUser, editor + u"\\12.0\\Preferences\\General", u"bDisableInternet", u"8");
  out = 0;
  EXPECT_EQ(Make("", "", 1, u"12.5.1")->GetDisableInternet(out), 0);
  EXPECT_EQ(out, 8);
  // A policy wins over all of them.
  SetDword(kMachine, kReaderPolicy + u"Preferences", u"InternetConnection", 1);
  EXPECT_EQ(Make("")->GetDisableInternet(out), 1);
  EXPECT_EQ(out, 0);
}

TEST_F(Store, CollectDataFallsBackOnTheUsersApplicationKey) {
  int32_t out = 5;
  EXPECT_EQ(Make("")->GetCollectData(out), 0);
  EXPECT_EQ(out, 0);  // set all the same
  SetString(kUser, u"SOFTWARE\\Tarvo Software\\Tarvo PDF Reader\\11.0\\Preferences\\General",
            u"bCollectData", u"1");
  EXPECT_EQ(Make("")->GetCollectData(out), 0);
  EXPECT_EQ(out, 1);
}

// ---- Lists: the file's, then the machine's and the user's items it lacks. ----

TEST_F(Store, ListsMergeEverySource) {
  const std::string modules = "<Modules><I Text=\"Default\" ModuleArray=\" Core; Forms ;;Sign\"/></Modules>";
  SetString(kMachine, kReaderPolicy + u"Modules", u"a", u"Forms");
  SetString(kMachine, kReaderPolicy + u"Modules", u"b", u"Extra");
  SetString(kUser, kReaderPolicy + u"Modules", u"c", u"extra");
  SetString(kUser, kReaderPolicy + u"Modules", u"d", u"User");
  SetString(kUser, kReaderPolicy + u"Modules", u"e", std::u16string(200, u'x'));  // over 260 bytes
  std::u16string joined;
  EXPECT_EQ(Make("", modules)->GetModuleArray(joined), 1);
  EXPECT_EQ(joined, u"Core;Forms;Sign;Extra;User;");

  // Names for the plug-ins of the exception menu, data for those not to load;
  // repeats within one source stay.
  const std::u16string menu = kReaderPolicy + u"Preferences\\InternetConnectionExcepMenu";
  SetString(kMachine, menu, u"PlugA", u"");
  SetString(kUser, menu, u"pluga", u"");
  SetString(kUser, menu, u"PlugB", u"");
  SetString(kMachine, kReaderPolicy + u"Plugins", u"1", u"Same");
  SetString(kMachine, kReaderPolicy + u"Plugins", u"2", u"Same");
  auto store = Make("", "<ECMPlugins><P Text=\"Plugin\" ECMPluginArray=\"FromFile\"/></ECMPlugins>");
  std::vector<std::u16string> list;
  EXPECT_EQ(store->GetECMPluginArray(list), 1);
  EXPECT_EQ(list, (std::vector<std::u16string>{u"FromFile", u"PlugA", u"PlugB"}));
  EXPECT_EQ(store->GetUnloadPluginArray(list), 1);
  EXPECT_EQ(list, (std::vector<std::u16string>{u"Same", u"Same"}));

  regtest::RegistryTest::Clear();
  list = {u"untouched"};
  joined = u"untouched";
  store = Make("", "<Modules><I Text=\"Default\" ModuleArray=\" ; ; \"/></Modules>");
  EXPECT_EQ(store->GetModuleArray(joined), 0);
  EXPECT_EQ(store->GetUnloadPluginArray(list), 0);
  EXPECT_EQ(joined, u"untouched");
  EXPECT_EQ(list, std::vector<std::u16string>{u"untouched"});
}

// ---- The creator's port range: both ends from any source, min not above max. ----

struct PortCase {
  const char* what;
  std::string file;  // attributes of the CreatorPortRange item, or "" for none
  int64_t machine_min, machine_max;  // -1: no policy value
  int result;
  int32_t min, max;
};

class PortRange : public Store, public ::testing::WithParamInterface<PortCase> {};

TEST_P(PortRange, Combines) {
  const PortCase& c = GetParam();
  if (c.machine_min >= 0)
    SetDword(kMachine, kReaderPolicy + u"Preferences", u"CreatorPortRangeMin", static_cast<uint32_t>(c.machine_min));
  if (c.machine_max >= 0)
    SetDword(kMachine, kReaderPolicy + u"Preferences", u"CreatorPortRangeMax", static_cast<uint32_t>(c.machine_max));
  auto store = Make(c.file.empty() ? "" : "<I Text=\"CreatorPortRange\" " + c.file + "/>");
  int32_t lo = -7, hi = -7;
  EXPECT_EQ(store->GetCreatorPortRange(lo, hi), c.result) << c.what;
  EXPECT_EQ(lo, c.result ? c.min : -7) << c.what;
  EXPECT_EQ(hi, c.result ? c.max : -7) << c.what;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, PortRange,
    ::testing::Values(PortCase{"file", "Min=\" 8000 \" Max=\"9000\"", -1, -1, 1, 8000, 9000},
                      PortCase{"min above max", "Min=\"9000\" Max=\"8000\"", -1, -1, 0, 0, 0},
                      PortCase{"file min, policy max", "Min=\"100\"", -1, 200, 1, 100, 200},
                      PortCase{"one end missing", "Min=\"1\"", -1, -1, 0, 0, 0},
                      PortCase{"blanks end the search", "Min=\"  \"", 1, 2, 0, 0, 0},
                      PortCase{"compared unsigned", "Min=\"-1\" Max=\"10\"", -1, -1, 0, 0, 0}));

// ---- The policy store's product keys. ----

TEST_F(Store, NewestProductKeyWinsForBothRoots) {
  SetString(kUser, kReaderPolicy + u"Preferences", u"DistName", u"user-new");
  SetString(kMachine, u"Software\\Policies\\Tarvo\\Reader\\Preferences", u"DistName", u"machine-old");
  std::u16string out;
  EXPECT_EQ(Make("")->GetDistName(out), 1);
  EXPECT_EQ(out, u"user-new");
  // A product key without the sub-key is a miss; older names aren't tried.
  os::DeleteRegTree(kUser, kReaderKey);
  SetString(kMachine, kReaderPolicy + u"Other", u"x", u"y");
  out = u"untouched";
  EXPECT_EQ(Make("")->GetDistName(out), 0);
}

TEST_F(Store, ProductKeySearchRepeatsUntilFoundThenStays) {
  auto store = Make("");
  std::u16string out;
  EXPECT_EQ(store->GetDistName(out), 0);
  SetString(kUser, u"Software\\Policies\\Tarvo\\Reader 8.0\\Preferences", u"DistName", u"old");
  EXPECT_EQ(store->GetDistName(out), 1);
  EXPECT_EQ(out, u"old");
  SetString(kUser, kReaderPolicy + u"Preferences", u"DistName", u"new");
  EXPECT_EQ(store->GetDistName(out), 1);
  EXPECT_EQ(out, u"old");  // the index found first stays
}

TEST_F(Store, AnyEditorKindReadsTheEditorsPolicyKeys) {
  SetString(kMachine, kReaderPolicy + u"Preferences", u"DistName", u"reader");
  SetString(kMachine, u"Software\\Policies\\Tarvo\\BrindlePDF\\Preferences", u"DistName", u"editor");
  std::u16string out;
  EXPECT_EQ(Make("", "", 7)->GetDistName(out), 1);
  EXPECT_EQ(out, u"editor");
}

// ---- The store as a whole: defaults, the getter, a file that isn't there. ----

TEST(ProfstoreDefaults, VersionPathAndKind) {
  CProfstoreEx store;
  EXPECT_EQ(store.Version(), u"10.0");
  EXPECT_EQ(store.ProductKind(), 1);
  const std::u16string exe = os::HostExecutablePath();
  const std::u16string tail = std::u16string(u"ProfStore") + os::kPathSeparator + u"ProfStore.xml";
  EXPECT_EQ(store.Path(), exe.substr(0, exe.rfind(os::kPathSeparator) + 1) + tail);

  const std::pair<std::u16string, std::u16string> versions[] = {
      {u"", u"10.0"}, {u"10", u"10"}, {u"12.1.3", u"12.0"}, {u".5", u".5"}, {u"9.", u"9.0"}};
  for (const auto& [given, kept] : versions) {
    CProfstoreEx s;
    s.Init(0, u"", given);
    EXPECT_EQ(s.Version(), kept);
    EXPECT_EQ(s.Path(), store.Path());  // an empty path keeps the default
  }
}

TEST_F(Store, GetterKeepsTheFirstObjectUntilReleased) {
  SetString(kUser, kReaderPolicy + u"Preferences", u"DistName", u"reader");
  const std::u16string missing = tpcsdk::Utf8ToUtf16((dir_.path() / "none.xml").u8string());
  ::IProfstore* first = tpcsdk::GetProfStoreEx(0, missing, u"11.0");
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(tpcsdk::GetProfStoreEx(1, u"", u"12.0"), first);
  EXPECT_EQ(static_cast<CProfstoreEx*>(first)->ProductKind(), 0);
  std::u16string out;
  EXPECT_EQ(first->GetDistName(out), 1);  // no file: the registry alone answers
  EXPECT_EQ(out, u"reader");
  tpcsdk::ReleaseProfStoreEx();
  ::IProfstore* second = tpcsdk::GetProfStoreEx(1, u"", u"12.0");
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(static_cast<CProfstoreEx*>(second)->ProductKind(), 1);
  tpcsdk::ReleaseProfStoreEx();
}

}  // namespace
