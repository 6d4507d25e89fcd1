// UpdateWrapperDocuments through the client interface against tdoc-emulator: the
// settings reply, the stored time in the registry (the real one under wine, JSON hives
// on Linux), which files are fetched and in what order, and what lies on disk after.
#include <gtest/gtest.h>
#include <json/json.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "kit/emulator_client.h"
#include "kit/testkit.h"
#include "operations/wrappers.h"
#include "os/registry.h"
#include "support/utf.h"
#include "tpcsdk/ITetherdocServer.h"
#include "web_service/tetherdoc_server.h"

namespace {

namespace fs = std::filesystem;
using tpcsdk::Utf16ToUtf8;
using tpcsdk::Utf8ToUtf16;

constexpr char kApp[] = "Wrapper Test";
constexpr char16_t kProductKey[] = u"SOFTWARE\\Tarvo Software\\Wrapper Test 12.0";
const char* const kLinkPaths[] = {"/files/p.pdf", "/files/r.pdf", "/files/l.pdf"};

struct Case {
  const char* name;
  const char* al;
  const char* stored;       // the registry value before; nullptr: none
  const char* update_time;  // the service's
  std::vector<int> present;  // files there before, by index, with "old" content
  const char* present_al;    // their language (nullptr: al)
  std::vector<int> links;    // which links the settings carry (others are "")
  int failing = -1;          // the link that answers 404
  int settings_status = 200;
  std::vector<int> fetched;  // the links asked for, in order
  const char* stored_after;  // nullptr: no value
};

void PrintTo(const Case& c, std::ostream* os) { *os << c.name; }

class UpdateWrappers : public ::testing::TestWithParam<Case> {
 protected:
  UpdateWrappers()
      : appdata_("TPCSDK_APPDATA_DIR", dir_.path().string()),
        hives_(tpcsdk::os::kRegistryDirVariable, dir_.path().string()) {
    tpcsdk::os::DeleteRegTree(tpcsdk::os::RegRoot::kCurrentUser, kProductKey);
  }
  ~UpdateWrappers() override {
    tpcsdk::os::DeleteRegTree(tpcsdk::os::RegRoot::kCurrentUser, kProductKey);
  }

  fs::path Folder() const {
    return dir_.path() / "Tarvo Software" / kApp / "cacheData" / "127.0.0.1";
  }
  fs::path File(int index, const char* al) const {
    return Folder() / fs::path(tpcsdk::wrappers::WrapperFileName(tpcsdk::wrappers::kWrapperFiles[index], al));
  }
  std::string Stored() const {
    const std::u16string text = tpcsdk::wrappers::ReadWrapperUpdateTime(kApp, "12.1", u"127.0.0.1");
    return Utf16ToUtf8(text);
  }

  testkit::TempDir dir_;
  testkit::ScopedEnv appdata_;
  testkit::ScopedEnv hives_;
};

TEST_P(UpdateWrappers, FetchesWhatIsNeeded) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  const Case& c = GetParam();
  tpcsdk::TetherdocServer client(c.al, kApp, "12.1");
  ASSERT_EQ(client.InitApi(Utf8ToUtf16(emu->base_url()).c_str()), TDC_HRESULT_OK);

  Json::Value data(Json::objectValue);
  const char* members[] = {"protectWrapperFilelink", "requestPermissionFilelink",
                           "requestPermissionLicenseFilelink"};
  for (const char* m : members) data[m] = "";
  for (int i : c.links) data[members[i]] = emu->base_url() + kLinkPaths[i];
  data["updateTime"] = c.update_time;
  Json::Value reply;
  reply["ret"] = 0;
  reply["message"] = "";
  reply["returned"] = 0;
  reply["data"] = data;
  ASSERT_NE(emu->ScriptJson("GET", "/tdocapi/v1/wrapper/settings", reply, c.settings_status), 0u);
  for (int i = 0; i < 3; ++i) {
    Json::Value rule;
    rule["method"] = "GET";
    rule["path"] = kLinkPaths[i];
    rule["status"] = i == c.failing ? 404 : 200;
    rule["body"] = i == c.failing ? "missing" : std::string("new:") + kLinkPaths[i];
    rule["times"] = -1;
    ASSERT_NE(emu->Script(rule), 0u);
  }
  if (c.stored) tpcsdk::wrappers::WriteWrapperUpdateTime(kApp, "12.1", u"127.0.0.1", Utf8ToUtf16(c.stored));
  const char* present_al = c.present_al ? c.present_al : c.al;
  fs::create_directories(Folder());
  for (int i : c.present) testkit::WriteFile(File(i, present_al), "old");
  ASSERT_TRUE(emu->ClearLog());

  static_cast<ITetherdocServer&>(client).UpdateWrapperDocuments();

  std::vector<std::string> asked;
  for (const auto& r : emu->Requests()) {
    if (r.path.rfind("/files/", 0) == 0) asked.push_back(r.path);
  }
  std::vector<std::string> expected;
  for (int i : c.fetched) expected.push_back(kLinkPaths[i]);
  EXPECT_EQ(asked, expected);
  EXPECT_EQ(Stored(), c.stored_after ? c.stored_after : "");
  if (c.stored_after) {  // a string value under the host's key
    tpcsdk::os::RegKey key = tpcsdk::os::OpenRegKey(
        tpcsdk::os::RegRoot::kCurrentUser, std::u16string(kProductKey) + u"\\Plugins\\127.0.0.1");
    uint32_t type = 0;
    EXPECT_TRUE(tpcsdk::os::QueryRegValueInfo(key, u"CustomWrapperUpdateTime", &type, nullptr));
    EXPECT_EQ(type, tpcsdk::os::kRegSz);
    tpcsdk::os::CloseRegKey(key);
  }

  for (int i = 0; i < 3; ++i) {
    const bool fetched = std::find(c.fetched.begin(), c.fetched.end(), i) != c.fetched.end();
    const bool was_there = std::find(c.present.begin(), c.present.end(), i) != c.present.end() &&
                           (c.present_al == nullptr);
    const fs::path file = File(i, c.al);
    if (fetched && i == c.failing) {
      EXPECT_FALSE(fs::exists(file)) << i;
    } else if (fetched) {
      EXPECT_EQ(testkit::ReadFile(file), std::string("new:") + kLinkPaths[i]) << i;
    } else if (was_there) {
      EXPECT_EQ(testkit::ReadFile(file), "old") << i;
    } else {
      EXPECT_FALSE(fs::exists(file)) << i;
    }
  }
  for (const auto& entry : fs::directory_iterator(Folder())) {
    EXPECT_NE(entry.path().extension(), ".part") << entry.path();
  }
}

const char kTime[] = "2026-01-05 10:20:30";
const char kSameTime[] = "2026/01/05 10:20:30";

INSTANTIATE_TEST_SUITE_P(
    Wrappers, UpdateWrappers,
    ::testing::Values(
        Case{"FirstCallFetchesAllInOrder", "en-US", nullptr, kTime, {}, nullptr, {0, 1, 2}, -1, 200,
             {0, 1, 2}, kTime},
        Case{"NoStoredTimeFetchesWhateverIsOnDisk", "en-US", nullptr, kTime, {0, 1, 2}, nullptr,
             {0, 1, 2}, -1, 200, {0, 1, 2}, kTime},
        // The same date in another spelling: nothing is fetched, the service's text is
        // stored again.
        Case{"UnchangedTimeAllPresentFetchesNothing", "en-US", kTime, kSameTime, {0, 1, 2}, nullptr,
             {0, 1, 2}, -1, 200, {}, kSameTime},
        Case{"UnchangedTimeOneMissingFetchesAll", "en-US", kTime, kTime, {0, 2}, nullptr, {0, 1, 2},
             -1, 200, {0, 1, 2}, kTime},
        Case{"NewTimeFetchesAll", "en-US", "2026-01-04 10:20:30", kTime, {0, 1, 2}, nullptr,
             {0, 1, 2}, -1, 200, {0, 1, 2}, kTime},
        // The other language's set doesn't count: the "_cn" files are missing.
        Case{"LanguageChangeFetchesTheOtherSet", "zh-CN", kTime, kTime, {0, 1, 2}, "en-us",
             {0, 1, 2}, -1, 200, {0, 1, 2}, kTime},
        Case{"LicenceLinkAloneDoesNothing", "en-US", nullptr, kTime, {}, nullptr, {2}, -1, 200, {},
             nullptr},
        Case{"EmptyLinkKeepsItsFile", "en-US", "2026-01-04 10:20:30", kTime, {0, 1, 2}, nullptr,
             {1, 2}, -1, 200, {1, 2}, kTime},
        // The old copy is gone and the time stored; the next call finds the hole.
        Case{"FailedDownloadLeavesAHoleAndTheNewTime", "en-US", "2026-01-04 10:20:30", kTime,
             {0, 1, 2}, nullptr, {0, 1, 2}, 1, 200, {0, 1, 2}, kTime},
        Case{"FailedSettingsCallTouchesNothing", "en-US", "2026-01-04 10:20:30", kTime, {}, nullptr,
             {0, 1, 2}, -1, 500, {}, "2026-01-04 10:20:30"},
        // Texts no parser knows are both the failure value, and so the same.
        Case{"UnknownTextsOnBothSidesAreTheSame", "en-US", "soon", "later", {0, 1, 2}, nullptr,
             {0, 1, 2}, -1, 200, {}, "later"},
        Case{"UnknownServiceTextAgainstADateFetches", "en-US", kTime, "later", {0, 1, 2}, nullptr,
             {0, 1, 2}, -1, 200, {0, 1, 2}, "later"}),
    [](const ::testing::TestParamInfo<Case>& info) { return std::string(info.param.name); });

}  // namespace
