#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "kit/testkit.h"
#include "os/paths.h"
#include "platform/product_identity.h"
#include "support/utf.h"

using namespace tpcsdk;
namespace fs = std::filesystem;

namespace {

std::u16string U(const fs::path& p) { return p.u16string(); }

}  // namespace

struct Verdict {
  std::u16string text;
  bool expected;
};

class RootDomain : public ::testing::TestWithParam<Verdict> {};

TEST_P(RootDomain, Decides) { EXPECT_EQ(IsRootDomain(GetParam().text), GetParam().expected); }

INSTANTIATE_TEST_SUITE_P(
    Names, RootDomain,
    ::testing::Values(Verdict{u"", false}, Verdict{u"localhost", false}, Verdict{u"com", false},
                      Verdict{u"a.co.kr", true}, Verdict{u"a.kr", true}, Verdict{u"A.COM", true},
                      Verdict{u"a.asia", true}, Verdict{u"x.\u516C\u53F8", true}, Verdict{u"a.b.com.cn", true},
                      Verdict{u"a.com:8080", false}, Verdict{u"a.com.", false}, Verdict{u"a.internal", false},
                      Verdict{u"a.comx", false}, Verdict{u"a.zw", true}));

class ValidHost : public ::testing::TestWithParam<Verdict> {};

// Runs against the shell's own predicates on Windows and against ours elsewhere.
TEST_P(ValidHost, Decides) { EXPECT_EQ(IsValidHostString(GetParam().text), GetParam().expected); }

INSTANTIATE_TEST_SUITE_P(
    Texts, ValidHost,
    ::testing::Values(Verdict{u"", false}, Verdict{u"a.b.com", true}, Verdict{u"https://x.internal", true},
                      Verdict{u"x.internal", false}, Verdict{u"tdoc.example.co.jp/api", true},
                      Verdict{u"/x.internal", false}, Verdict{u"a.com:8080", true},
                      Verdict{u"\\\\server\\share", true}, Verdict{u"file:///c:/x", true},
                      Verdict{u"c:\\dir", false}, Verdict{u"plainword", false}));

class UrlPredicates : public ::testing::TestWithParam<std::tuple<std::u16string, bool, bool, bool>> {};

TEST_P(UrlPredicates, AnswerLikeTheShell) {
  const auto& [text, url, unc, file] = GetParam();
  EXPECT_EQ(os::PathIsUrl(text), url);
  EXPECT_EQ(os::PathIsUnc(text), unc);
  EXPECT_EQ(os::IsFileUrl(text), file);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, UrlPredicates,
    ::testing::Values(std::make_tuple(u"http://a", true, false, false), std::make_tuple(u"ab:", true, false, false),
                      std::make_tuple(u"a:", false, false, false), std::make_tuple(u"x-y.z+1:rest", true, false, false),
                      std::make_tuple(u"no scheme", false, false, false), std::make_tuple(u"", false, false, false),
                      std::make_tuple(u"\\\\srv", false, true, false), std::make_tuple(u"\\srv", false, false, false),
                      std::make_tuple(u"FILE:///x", true, false, true), std::make_tuple(u"files:x", true, false, false)));

struct FolderCase {
  std::string name;
  std::string folder;
};

class AppFolder : public ::testing::TestWithParam<FolderCase> {};

TEST_P(AppFolder, Maps) { EXPECT_EQ(GetAppFolderName(GetParam().name), GetParam().folder); }

INSTANTIATE_TEST_SUITE_P(
    Names, AppFolder,
    ::testing::Values(
        FolderCase{"Tarvo BrindlePDF(tDoc) windows Service", "Tarvo PDF Editor(tDoc) windows Service"},
        FolderCase{"x Tarvo Reader(tDoc) windows Service y", "Tarvo PDF Reader(tDoc) windows Service"},
        FolderCase{"Tarvo BrindlePDF 12", "Tarvo PDF Editor"}, FolderCase{"Tarvo Reader Pro Edition", "Tarvo PDF Reader"},
        FolderCase{"Tarvo PDF Editor", "Tarvo PDF Editor"}, FolderCase{"tarvo reader", "tarvo reader"},
        FolderCase{"", ""}));

TEST(ProductKey, KeepsTheMajorVersion) {
  EXPECT_EQ(ProductKey(kEditorProductName, u"7.5.3"), u"Tarvo PDF Editor 7.0");
  EXPECT_EQ(ProductKey(kReaderProductName, u"12"), u"Tarvo PDF Reader 12.0");
  EXPECT_EQ(ProductKey(u"X", u""), u"X .0");
}

TEST(LogProduct, FollowsTheApplicationType) {
  EXPECT_EQ(LogProductKind(u"Tarvo BrindlePDF"), ProductKind::Editor);
  EXPECT_EQ(LogProductKind(u"Tarvo PDF Editor"), ProductKind::Reader);  // only "Brindle" counts
}

TEST(LogProduct, WithoutTypeLooksForTheEditorBesideTheModule) {
  const fs::path marker = fs::path(os::ModuleDirectory()) / "TarvoPDFEditor.exe";
  ASSERT_FALSE(fs::exists(marker));
  EXPECT_EQ(LogProductKind(u""), ProductKind::Reader);
  testkit::WriteFile(marker, "");
  EXPECT_EQ(LogProductKind(u""), ProductKind::Editor);
  fs::remove(marker);
}

TEST(Directories, TestAndCreateOneLevel) {
  testkit::TempDir tmp;
  testkit::WriteFile(tmp / "file", "x");
  EXPECT_TRUE(IsDirectory(U(tmp.path())));
  EXPECT_TRUE(IsDirectory(U(tmp.path()) + os::kPathSeparator));
  EXPECT_FALSE(IsDirectory(U(tmp / "file")));
  EXPECT_FALSE(IsDirectory(U(tmp / "missing")));

  EnsureDirectory(U(tmp / "a" / "b"));  // two missing levels: nothing is made
  EXPECT_FALSE(fs::exists(tmp / "a"));
  EnsureDirectory(U(tmp / "a"));
  EnsureDirectory(U(tmp / "a"));  // already there: no change, no failure
  EXPECT_TRUE(fs::is_directory(tmp / "a"));
}

TEST(Paths, AppDataFollowsTheOverride) {
  testkit::TempDir tmp;
  testkit::ScopedEnv env(os::kAppDataOverrideVariable, tmp.path().u8string());
  EXPECT_EQ(fs::path(os::AppDataDirectory()), tmp.path());
  const fs::path exe(os::HostExecutablePath());
  EXPECT_NE(exe.filename().u8string().find("test_identity"), std::string::npos);
  EXPECT_EQ(fs::path(os::ModuleDirectory()), exe.parent_path());
}

TEST(Paths, CachePathsEnsureEachLevel) {
  testkit::TempDir tmp;
  testkit::ScopedEnv env(os::kAppDataOverrideVariable, tmp.path().u8string());
  const fs::path cache = tmp.path() / "Tarvo Software" / "Tarvo PDF Reader" / "cacheData";
  EXPECT_EQ(fs::path(Utf8ToUtf16(GetCacheFilePath(u"h.example", "Tarvo Reader 2"))), cache / "h.example.dat");
  EXPECT_TRUE(fs::is_directory(cache));
  EXPECT_EQ(fs::path(Utf8ToUtf16(GetCacheMarkerPath("Tarvo Reader"))), cache / "tdoc.dat");
  const std::u16string sub = Utf8ToUtf16(GetCacheDirectory(u"wrap", "Tarvo Reader"));
  EXPECT_EQ(sub, U(cache / "wrap") + os::kPathSeparator);
  EXPECT_TRUE(fs::is_directory(cache / "wrap"));
  // An unknown name is its own folder.
  EXPECT_EQ(fs::path(Utf8ToUtf16(GetCacheFilePath(u"", "Other App"))),
            tmp.path() / "Tarvo Software" / "Other App" / "cacheData" / ".dat");
}

TEST(Paths, FilesRenameOverAndDelete) {
  testkit::TempDir tmp;
  testkit::WriteFile(tmp / "new", "fresh");
  testkit::WriteFile(tmp / "old", "stale");
  EXPECT_TRUE(os::PathExists(U(tmp / "new")));
  EXPECT_TRUE(os::RenameFile(U(tmp / "new"), U(tmp / "old")));
  EXPECT_EQ(testkit::ReadFile(tmp / "old"), "fresh");
  EXPECT_FALSE(os::PathExists(U(tmp / "new")));
  EXPECT_TRUE(os::RemoveFile(U(tmp / "old")));
  EXPECT_FALSE(os::RemoveFile(U(tmp / "old")));
  EXPECT_FALSE(os::PathExists(U(tmp / "old")));
  EXPECT_EQ(os::OpenStdioFile(U(tmp / "missing"), "r"), nullptr);
}
