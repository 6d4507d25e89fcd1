#include <gtest/gtest.h>
#include <json/json.h>

#include <filesystem>
#include <string>

#include "kit/testkit.h"
#include "os/paths.h"
#include "platform/diagnostic_log.h"
#include "support/base64.h"
#include "web_service/api_cache.h"

#ifndef _WIN32
#include <sys/stat.h>
#endif

using namespace tpcsdk;
namespace fs = std::filesystem;

namespace {

const std::string kDirectory =
    R"({"size":2,"twsConfig":{"a":1},"url":{"tdc_domain":"https://d.example/x","tdc_users":"https://u.example/users"}})";

std::string Decode(const std::string& text) {
  return Base64Decode(text.data(), static_cast<std::int32_t>(text.size()));
}
std::string Encode(const std::string& bytes) {
  return Base64Encode(bytes.data(), static_cast<std::int32_t>(bytes.size()));
}

class Cache : public ::testing::Test {
 protected:
  testkit::TempDir tmp;
  testkit::ScopedEnv env{os::kAppDataOverrideVariable, tmp.path().u8string()};
  std::string clock = "2024-03-01 12:00:00";
  ApiCache cache{"Tarvo Reader", nullptr, [this] { return clock; }};

  fs::path Entry(const std::u16string& host) { return fs::path(cache.EntryPath(host)); }
  fs::path Folder() { return tmp.path() / "Tarvo Software" / "Tarvo PDF Reader" / "cacheData"; }

  // Rewrites the decoded record of an entry. Bytes past the first 16 are plain text.
  void Rewrite(const fs::path& file, const std::string& from, const std::string& to) {
    std::string record = Decode(testkit::ReadFile(file));
    const size_t at = record.find(from, 16);
    ASSERT_NE(at, std::string::npos);
    record.replace(at, from.size(), to);
    testkit::WriteFile(file, Encode(record));
  }
};

}  // namespace

TEST(CacheTime, FreshUnderOneDay) {
  EXPECT_TRUE(IsCacheFresh("2024-03-01 12:00:00", "2024-03-01 12:00:00"));
  EXPECT_TRUE(IsCacheFresh("2024-03-01 12:00:00", "2024-03-02 11:59:59"));   // 86,399 s
  EXPECT_FALSE(IsCacheFresh("2024-03-01 12:00:00", "2024-03-02 12:00:00"));  // 86,400 s
  EXPECT_TRUE(IsCacheFresh("2024-02-29 23:00:00", "2024-03-01 22:59:59"));   // across a month
  EXPECT_FALSE(IsCacheFresh("2023-12-31 23:59:59", "2024-01-01 23:59:59"));  // across a year
  EXPECT_TRUE(IsCacheFresh("2030-01-01 00:00:00", "2024-03-01 12:00:00"));   // a future time
  // The index runs over the cache time: an empty one reads nothing of "now" either,
  // so both sides are the same time.
  EXPECT_TRUE(IsCacheFresh("", "2024-03-01 12:00:00"));
  EXPECT_FALSE(IsCacheFresh("garbage", "2024-03-01 12:00:00"));
  EXPECT_TRUE(IsCacheFresh("2024-03-01 12:00:00", "2024-03-01"));  // a short "now" reads as far as it goes
  const std::string now = NowString();
  EXPECT_EQ(now.size(), 19u);
  EXPECT_TRUE(IsCacheFresh(now, NowString()));
}

TEST(CacheHost, NameOfUrl) {
  EXPECT_EQ(GetHostNameOfUrl(u"https://Tdoc.Example.com:8443/path?q=1"), u"Tdoc.Example.com");
  EXPECT_EQ(GetHostNameOfUrl(u"HTTP://user:pw@h.example/"), u"h.example");
  EXPECT_EQ(GetHostNameOfUrl(u"h.example"), u"");
  EXPECT_EQ(GetHostNameOfUrl(u"ftp://h.example"), u"");
}

TEST_F(Cache, StoresAndReadsBackWithinTheDay) {
  EXPECT_EQ(cache.GetCacheApi(u"https://h.example"), "");  // no entry, none created
  EXPECT_FALSE(fs::exists(Entry(u"https://h.example")));

  testkit::TempDir logdir;
  DiagnosticLog log;
  ASSERT_TRUE(log.OpenPath((logdir / "x.log").u16string()));
  ApiCache(std::string("Tarvo Reader"), &log, [this] { return clock; }).SetCacheApi(u"https://h.example", kDirectory);
  log.Close();
  EXPECT_NE(testkit::ReadFile(logdir / "x.log").find("]Set Cache Api Success"), std::string::npos);

  const fs::path file = Folder() / "h.example.dat";
  ASSERT_TRUE(fs::exists(file));
#ifndef _WIN32
  struct stat st {};
  ASSERT_EQ(stat(file.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
#endif
  clock = "2024-03-02 11:59:59";
  const std::string api = cache.GetCacheApi(u"https://h.example");
  Json::Value expected;
  ASSERT_TRUE(Json::Reader().parse(kDirectory, expected));
  expected["cacheTime"] = "2024-03-01 12:00:00";
  EXPECT_EQ(api, Json::FastWriter().write(expected));

  // The record in the file: api, host, md5, with only the first 16 bytes scrambled.
  const std::string record = Decode(testkit::ReadFile(file));
  EXPECT_NE(record.substr(0, 7), R"({"api":)");
  EXPECT_NE(record.find(R"("host":"https://h.example","md5":")"), std::string::npos);
}

TEST_F(Cache, ExpiresAtOneDay) {
  cache.SetCacheApi(u"https://h.example", kDirectory);
  clock = "2024-03-02 12:00:00";
  EXPECT_EQ(cache.GetCacheApi(u"https://h.example"), "");
  EXPECT_FALSE(fs::exists(Folder() / "h.example.dat"));
}

TEST_F(Cache, AlteredDirectoryIsRejectedAndDeleted) {
  cache.SetCacheApi(u"https://h.example", kDirectory);
  Rewrite(Folder() / "h.example.dat", "u.example/users", "v.example/users");
  EXPECT_EQ(cache.GetCacheApi(u"https://h.example"), "");
  EXPECT_FALSE(fs::exists(Folder() / "h.example.dat"));
}

TEST_F(Cache, AlteredHostGoesUnnoticed) {
  cache.SetCacheApi(u"https://h.example", kDirectory);
  Rewrite(Folder() / "h.example.dat", "https://h.example", "http://elsewhere");
  EXPECT_NE(cache.GetCacheApi(u"https://h.example"), "");
}

TEST_F(Cache, OneFilePerHostNameWhateverSchemeAndPort) {
  cache.SetCacheApi(u"http://h.example:8080", kDirectory);
  EXPECT_EQ(Entry(u"https://h.example:9443/x"), Folder() / "h.example.dat");
  EXPECT_NE(cache.GetCacheApi(u"https://h.example:9443/x"), "");
  EXPECT_EQ(cache.GetCacheApi(u"https://other.example"), "");
  // Without a scheme the host name is empty: the entry is ".dat" alone.
  EXPECT_EQ(Entry(u"h.example"), Folder() / ".dat");
}

TEST_F(Cache, FailedWriteDeletesTheMarkerNotTheEntry) {
  const fs::path marker = Folder() / "tdoc.dat";
  fs::create_directories(Folder());
  for (const std::string& bad : {std::string(), std::string("not json"), std::string("[1,2]")}) {
    testkit::WriteFile(marker, "m");
    cache.SetCacheApi(u"https://h.example", bad);
    EXPECT_FALSE(fs::exists(marker)) << bad;
    EXPECT_TRUE(fs::exists(Folder() / "h.example.dat"));
  }
  EXPECT_EQ(cache.GetCacheApi(u"https://h.example"), "");  // the empty leftover is rejected
  EXPECT_FALSE(fs::exists(Folder() / "h.example.dat"));
}

TEST_F(Cache, CorruptFilesAreRejectedAndDeleted) {
  fs::create_directories(Folder());
  const fs::path file = Folder() / "h.example.dat";
  for (const std::string& content :
       {std::string("QQ=="), std::string(3000, 'A'), std::string("%%%%\r\n"), Encode(std::string(40, '\0'))}) {
    testkit::WriteFile(file, content);
    EXPECT_EQ(cache.GetCacheApi(u"https://h.example"), "");
    EXPECT_FALSE(fs::exists(file));
  }
}

// Host names and application names from outside never lead the cache out of its
// folder: anything but a plain name means no entry, a log line, and no file touched.
struct Escape {
  const char* name;
  std::u16string host;
  std::string app;
  const char* logged;  // the start of the line that says why
};

class CacheEscape : public Cache, public ::testing::WithParamInterface<Escape> {};

TEST_P(CacheEscape, StaysInItsFolderAndLeavesOtherFilesAlone) {
  const Escape& c = GetParam();
  // What a path that climbs out of cacheData (or of the vendor folder) would reach.
  const fs::path victim = tmp.path() / "victim.dat";
  testkit::WriteFile(victim, "keep");
  testkit::TempDir logdir;
  DiagnosticLog log;
  ASSERT_TRUE(log.OpenPath((logdir / "x.log").u16string()));
  const ApiCache escaping(c.app, &log, [this] { return clock; });
  EXPECT_TRUE(escaping.EntryPath(c.host).empty());
  escaping.SetCacheApi(c.host, kDirectory);
  EXPECT_EQ(escaping.GetCacheApi(c.host), "");
  log.Close();

  EXPECT_EQ(testkit::ReadFile(victim), "keep");
  for (const auto& entry : fs::recursive_directory_iterator(tmp.path())) {
    if (entry.is_regular_file()) {
      EXPECT_EQ(entry.path(), victim);
    }
  }
  const std::string text = testkit::ReadFile(logdir / "x.log");
  EXPECT_NE(text.find(std::string("]Api cache not used: ") + c.logged), std::string::npos) << text;
}

INSTANTIATE_TEST_SUITE_P(
    Names, CacheEscape,
    ::testing::Values(
        Escape{"EscapedSlashes", u"https://..%2F..%2F..%2Fvictim/", "Tarvo Reader", "the host name"},
        Escape{"EscapedBackslashes", u"https://..%5C..%5C..%5Cvictim/", "Tarvo Reader", "the host name"},
        Escape{"EscapedDots", u"https://%2E%2E/", "Tarvo Reader", "the host name"},
        Escape{"LeadingDot", u"https://.victim/", "Tarvo Reader", "the host name"},
        Escape{"Underscore", u"https://a_b.example/", "Tarvo Reader", "the host name"},
        Escape{"NonAscii", u"https://b\u00FCcher.example/", "Tarvo Reader", "the host name"},
        Escape{"AppClimbsUp", u"https://h.example", "../../victim", "the application name"},
        Escape{"AppClimbsUpWithBackslashes", u"https://h.example", "..\\..\\victim", "the application name"},
        Escape{"AppIsParent", u"https://h.example", "..", "the application name"},
        Escape{"AppWithColon", u"https://h.example", "C:victim", "the application name"}),
    [](const auto& info) { return std::string(info.param.name); });
