#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "kit/private_registry.h"
#include "kit/testkit.h"
#include "os/registry.h"
#include "profstore/registry_fixture.h"

#ifndef _WIN32
#include <sys/stat.h>
#include <unistd.h>
#endif

namespace {

namespace os = tpcsdk::os;
using os::RegRoot;
using os::RegStatus;

constexpr char16_t kKey[] = u"Software\\TpcsdkRegistryTest\\Seam";

class RegistrySeam : public regtest::RegistryTest {};

TEST_F(RegistrySeam, WritesAndReadsBackWithoutRegardToCase) {
  for (RegRoot root : {RegRoot::kCurrentUser, RegRoot::kLocalMachine}) {
    SetString(root, kKey, u"Name", u"Valu\u00E9 \U0001F600");
    SetDword(root, kKey, u"Count", 0x01020304);
    SetString(root, kKey, u"NAME", u"second");  // same value, other case

    os::RegKey key = os::OpenRegKey(root, u"software\\TPCSDKREGISTRYTEST\\seam\\");
    ASSERT_NE(key, nullptr);
    std::u16string text;
    EXPECT_TRUE(os::QueryRegString(key, u"name", text));
    EXPECT_EQ(text, u"second");
    uint32_t n = 0;
    EXPECT_TRUE(os::QueryRegDword(key, u"count", n));
    EXPECT_EQ(n, 0x01020304u);
    uint32_t type = 0, size = 0;
    EXPECT_TRUE(os::QueryRegValueInfo(key, u"Name", &type, &size));
    EXPECT_EQ(type, os::kRegSz);
    EXPECT_EQ(size, 14u);  // six characters and the NUL
    uint32_t count = 0;
    EXPECT_TRUE(os::QueryRegValueCount(key, count));
    EXPECT_EQ(count, 2u);
    EXPECT_FALSE(os::QueryRegString(key, u"Missing", text));
    os::CloseRegKey(key);
  }
}

TEST_F(RegistrySeam, OpensParentsAndSubKeysAndMissesWhatIsNotThere) {
  SetString(RegRoot::kCurrentUser, kKey, u"v", u"x");
  os::RegKey parent = os::OpenRegKey(RegRoot::kCurrentUser, u"Software\\TpcsdkRegistryTest");
  ASSERT_NE(parent, nullptr);
  os::RegKey child = os::OpenRegKey(parent, u"SEAM");
  ASSERT_NE(child, nullptr);
  os::RegKey same = os::OpenRegKey(child, u"");
  ASSERT_NE(same, nullptr);
  std::u16string text;
  EXPECT_TRUE(os::QueryRegString(same, u"v", text));
  EXPECT_EQ(os::OpenRegKey(parent, u"Other"), nullptr);
  EXPECT_EQ(os::OpenRegKey(RegRoot::kLocalMachine, kKey), nullptr);  // other root
  for (os::RegKey k : {same, child, parent}) os::CloseRegKey(k);
  EXPECT_EQ(os::QueryRegValue(nullptr, u"v", nullptr, nullptr, nullptr), RegStatus::kFailed);

  EXPECT_TRUE(os::DeleteRegTree(RegRoot::kCurrentUser, u"Software\\TpcsdkRegistryTest"));
  EXPECT_EQ(os::OpenRegKey(RegRoot::kCurrentUser, kKey), nullptr);
  EXPECT_FALSE(os::DeleteRegTree(RegRoot::kCurrentUser, u"Software\\TpcsdkRegistryTest"));
}

// Reads hand out the stored bytes whatever the type, as the registry does.
TEST_F(RegistrySeam, WrongTypesReadAsTheirBytes) {
  SetString(RegRoot::kCurrentUser, kKey, u"One", u"1");
  SetString(RegRoot::kCurrentUser, kKey, u"Long", u"12");
  SetDword(RegRoot::kCurrentUser, kKey, u"Letter", 0x41);
  os::RegKey key = os::OpenRegKey(RegRoot::kCurrentUser, kKey);
  ASSERT_NE(key, nullptr);
  uint32_t n = 7;
  EXPECT_TRUE(os::QueryRegDword(key, u"One", n));  // "1" and NUL: four bytes
  EXPECT_EQ(n, 0x31u);
  EXPECT_FALSE(os::QueryRegDword(key, u"Long", n));  // six bytes don't fit
  std::u16string text;
  EXPECT_TRUE(os::QueryRegString(key, u"Letter", text));
  EXPECT_EQ(text, u"A");

  char16_t small[2];
  uint32_t size = sizeof(small);
  EXPECT_EQ(os::QueryRegValue(key, u"Long", nullptr, small, &size), RegStatus::kMoreData);
  EXPECT_EQ(size, 6u);
  os::CloseRegKey(key);
}

TEST_F(RegistrySeam, EnumeratesNamesAndData) {
  SetString(RegRoot::kCurrentUser, kKey, u"a", u"first");
  SetDword(RegRoot::kCurrentUser, kKey, u"b", 2);
  SetString(RegRoot::kCurrentUser, kKey, u"long name", u"x");
  os::RegKey key = os::OpenRegKey(RegRoot::kCurrentUser, kKey);
  ASSERT_NE(key, nullptr);
  std::vector<std::u16string> names;
  for (uint32_t i = 0;; ++i) {
    std::u16string name;
    uint32_t type = 0;
    char16_t data[16] = {};
    uint32_t size = sizeof(data);
    RegStatus st = os::EnumRegValue(key, i, name, 64, &type, data, &size);
    if (st == RegStatus::kNotFound) break;
    ASSERT_EQ(st, RegStatus::kOk);
    names.push_back(name);
    if (name == u"a") {
      EXPECT_EQ(std::u16string(data), u"first");
    }
    if (name == u"b") {
      EXPECT_EQ(type, os::kRegDword);
    }
  }
  EXPECT_EQ(names, (std::vector<std::u16string>{u"a", u"b", u"long name"}));
  std::u16string name;
  EXPECT_EQ(os::EnumRegValue(key, 2, name, 5, nullptr, nullptr, nullptr), RegStatus::kMoreData);
  char16_t tiny[2];
  uint32_t size = sizeof(tiny);
  EXPECT_EQ(os::EnumRegValue(key, 0, name, 64, nullptr, tiny, &size), RegStatus::kMoreData);
  os::CloseRegKey(key);
}

// The fixtures' own registry hides the keys outside it and never deletes them. Outside
// it stands wine's registry on Windows, and a hive directory of this test on Linux.
TEST(PrivateRegistry, HidesTheKeysOutsideAndLeavesThemAlone) {
  testkit::TempDir outside_dir;
#ifndef _WIN32
  testkit::ScopedEnv outside(os::kRegistryDirVariable, outside_dir.path().string());
#endif
  const std::u16string parent = u"Software\\TpcsdkRegistryTest";
  const std::u16string sentinel = parent + u"\\Sentinel";
  os::RegKey key = os::CreateRegKey(RegRoot::kCurrentUser, sentinel);
  ASSERT_NE(key, nullptr);
  EXPECT_TRUE(os::SetRegString(key, u"v", u"outside"));
  os::CloseRegKey(key);
  {
    testkit::TempDir dir;
    testkit::PrivateRegistry inside(dir.path());
    ASSERT_TRUE(inside.ok());
    EXPECT_EQ(os::OpenRegKey(RegRoot::kCurrentUser, sentinel), nullptr);
    os::CloseRegKey(os::CreateRegKey(RegRoot::kCurrentUser, sentinel));
    EXPECT_TRUE(os::DeleteRegTree(RegRoot::kCurrentUser, parent));
  }
  key = os::OpenRegKey(RegRoot::kCurrentUser, sentinel);
  ASSERT_NE(key, nullptr);
  std::u16string text;
  EXPECT_TRUE(os::QueryRegString(key, u"v", text));
  EXPECT_EQ(text, u"outside");
  os::CloseRegKey(key);
  EXPECT_TRUE(os::DeleteRegTree(RegRoot::kCurrentUser, parent));
}

#ifndef _WIN32
// The Linux hives: JSON documents an administrator edits by hand.
class JsonHive : public regtest::RegistryTest {
 protected:
  std::filesystem::path Hive(const char* name) const { return dir_.path() / name; }
};

TEST_F(JsonHive, ReadsAHandWrittenHive) {
  testkit::WriteFile(Hive("machine.json"), R"({
    "SOFTWARE\\Policies\\Tarvo\\PDFReader\\Preferences\\": {
      "PrinterName": "Office", "CollectData": 1, "Negative": -1,
      "Float": 1.5, "Flag": true, "Big": 8589934592, "List": ["a"] },
    "software\\policies\\tarvo\\pdfreader\\preferences": { "printername": "shadowed", "Other": "o" }
  })");
  os::RegKey parent = os::OpenRegKey(RegRoot::kLocalMachine, u"Software\\Policies\\Tarvo");
  EXPECT_NE(parent, nullptr);  // parents exist without members of their own
  os::CloseRegKey(parent);
  os::RegKey key =
      os::OpenRegKey(RegRoot::kLocalMachine, u"Software\\Policies\\Tarvo\\PDFReader\\Preferences");
  ASSERT_NE(key, nullptr);
  std::u16string text;
  EXPECT_TRUE(os::QueryRegString(key, u"PRINTERNAME", text));
  EXPECT_EQ(text, u"Office");
  uint32_t n = 0;
  EXPECT_TRUE(os::QueryRegDword(key, u"Negative", n));
  EXPECT_EQ(n, 0xFFFFFFFFu);
  uint32_t count = 0;
  EXPECT_TRUE(os::QueryRegValueCount(key, count));
  EXPECT_EQ(count, 4u);  // CollectData, Negative, PrinterName, Other; the rest aren't values
  os::CloseRegKey(key);
}

TEST_F(JsonHive, AHiveThatDoesNotParseIsEmptyAndKeptAsItIs) {
  const std::string broken = "{ \"Software\\\\TpcsdkRegistryTest\\\\Seam\": { \"v\": \"x\" ";
  testkit::WriteFile(Hive("user.json"), broken);
  EXPECT_EQ(os::OpenRegKey(RegRoot::kCurrentUser, kKey), nullptr);
  EXPECT_EQ(os::CreateRegKey(RegRoot::kCurrentUser, kKey), nullptr);
  EXPECT_EQ(testkit::ReadFile(Hive("user.json")), broken);
  testkit::WriteFile(Hive("user.json"), std::string(100000, '[') + std::string(100000, ']'));
  EXPECT_EQ(os::OpenRegKey(RegRoot::kCurrentUser, u"Software"), nullptr);
}

struct HiveModeCase {
  const char* name;
  RegRoot root;
  const char* file;
  unsigned file_mode, folder_mode;  // of a new hive and the folder made for it
};

class NewHive : public JsonHive, public ::testing::WithParamInterface<HiveModeCase> {};

// A hive is replaced whole, yet keeps the mode and owner its file had: a machine hive
// an administrator's tool rewrote stays readable to every user.
TEST_P(NewHive, IsMadeForItsReadersAndARewriteKeepsModeAndOwner) {
  const HiveModeCase& c = GetParam();
  const std::filesystem::path folder = dir_.path() / "made" / "tpcsdk";
  testkit::ScopedEnv moved(os::kRegistryDirVariable, folder.string());
  SetString(c.root, kKey, u"v", u"\u00E9");
  struct stat st {};
  ASSERT_EQ(stat(folder.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, c.folder_mode);
  ASSERT_EQ(stat((folder / c.file).c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, c.file_mode);
  EXPECT_NE(testkit::ReadFile(folder / c.file).find("\"v\" : \"\xC3\xA9\""), std::string::npos);

  ASSERT_EQ(chmod((folder / c.file).c_str(), 0640), 0);
  const bool can_chown = geteuid() == 0;
  if (can_chown) {
    ASSERT_EQ(chown((folder / c.file).c_str(), 4321, 4322), 0);
  }
  SetString(c.root, kKey, u"w", u"second");
  ASSERT_EQ(stat((folder / c.file).c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0640u);
  if (can_chown) {
    EXPECT_EQ(st.st_uid, 4321u);
    EXPECT_EQ(st.st_gid, 4322u);
  }
  size_t files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) files += entry.is_regular_file();
  EXPECT_EQ(files, 1u);  // no temporary file left behind
}

INSTANTIATE_TEST_SUITE_P(
    Roots, NewHive,
    ::testing::Values(HiveModeCase{"User", RegRoot::kCurrentUser, "user.json", 0600, 0700},
                      HiveModeCase{"Machine", RegRoot::kLocalMachine, "machine.json", 0644, 0755},
                      HiveModeCase{"AllUsers", RegRoot::kUsers, "users.json", 0644, 0755}),
    [](const auto& info) { return std::string(info.param.name); });
#endif

}  // namespace
