#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "kit/testkit.h"
#include "os/clock.h"
#include "os/paths.h"
#include "platform/diagnostic_log.h"
#include "support/utf.h"

#ifndef _WIN32
#include <sys/stat.h>
#endif

using namespace tpcsdk;
namespace fs = std::filesystem;

namespace {

#ifdef _WIN32
constexpr char kLineEnd[] = "\r\n";
#else
constexpr char kLineEnd[] = "\n";
#endif

std::vector<std::string> Lines(const fs::path& file) {
  std::vector<std::string> lines;
  const std::string text = testkit::ReadFile(file);
  size_t start = 0;
  for (size_t end = text.find(kLineEnd); end != std::string::npos; end = text.find(kLineEnd, start)) {
    lines.push_back(text.substr(start, end - start));
    start = end + std::char_traits<char>::length(kLineEnd);
  }
  EXPECT_EQ(start, text.size()) << "the file ends with a whole line";
  return lines;
}

class LogFolder : public ::testing::Test {
 protected:
  testkit::TempDir tmp;
  testkit::ScopedEnv env{os::kAppDataOverrideVariable, tmp.path().u8string()};
  fs::path Product(const char* name) { return tmp.path() / "Tarvo Software" / name; }
};

}  // namespace

TEST(LogLine, HeaderStamp) {
  os::LocalTime t;
  t.year = 2024, t.month = 3, t.day = 5, t.hour = 7, t.minute = 8, t.second = 9, t.millisecond = 45;
  EXPECT_EQ(DiagnosticLog::Header(t, 42), "[2024-03-05 07:08:09:045][ThreadId:000042]");
  EXPECT_EQ(DiagnosticLog::Header(t, 1234567), "[2024-03-05 07:08:09:045][ThreadId:1234567]");
  EXPECT_EQ(DiagnosticLog::FileName(t), u"tdoc_dll_2024-03-05.log");
}

TEST_F(LogFolder, NoProductFolderMeansNoLog) {
  DiagnosticLog log;
  EXPECT_FALSE(log.Open(u"Tarvo BrindlePDF"));
  EXPECT_FALSE(log.IsOpen());
  log.Write("nothing %d", 1);  // harmless without a file
  EXPECT_TRUE(fs::is_empty(tmp.path()));
}

TEST_F(LogFolder, WritesStampedUtf8LinesIntoTodaysFile) {
  fs::create_directories(Product("Tarvo PDF Editor"));
  DiagnosticLog log;
  ASSERT_TRUE(log.Open(u"Tarvo BrindlePDF"));
  EXPECT_TRUE(log.Open(u"Tarvo BrindlePDF"));  // already open: no change
  const std::string wide = Utf16ToUtf8(u"h\u00F4te-\u4E2D");
  log.Write("Host = %s errId:%d", wide.c_str(), 403);
  const std::string long_text(2000, 'x');
  log.Write("%s", long_text.c_str());
  log.Close();

  const auto files = std::vector<fs::directory_entry>(
      fs::directory_iterator(Product("Tarvo PDF Editor") / "Log"), fs::directory_iterator());
  ASSERT_EQ(files.size(), 1u);
  const auto lines = Lines(files[0].path());
  ASSERT_EQ(lines.size(), 2u);
  std::smatch m;
  const std::regex stamp(R"(\[(\d{4})-(\d{2})-(\d{2}) \d{2}:\d{2}:\d{2}:\d{3}\]\[ThreadId:(\d{6,})\](.*))");
  ASSERT_TRUE(std::regex_match(lines[0], m, stamp)) << lines[0];
  EXPECT_EQ(m[5].str(), "Host = " + wide + " errId:403");
  EXPECT_EQ(std::stoul(m[4].str()), os::CurrentThreadId());
  EXPECT_EQ(files[0].path().filename().u8string(), "tdoc_dll_" + m[1].str() + "-" + m[2].str() + "-" + m[3].str() + ".log");
  EXPECT_EQ(lines[1].substr(lines[1].size() - long_text.size()), long_text);
#ifndef _WIN32
  struct stat st {};
  ASSERT_EQ(stat(files[0].path().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
#endif
}

TEST_F(LogFolder, ReaderWithoutTypeAndTwoWritersAppend) {
  // Without an application type and no editor beside the module, the Reader's
  // folder; the log folder itself is made when the product folder exists.
  fs::create_directories(Product("Tarvo PDF Reader"));
  DiagnosticLog first, second;
  ASSERT_TRUE(first.Open());
  first.Write("one");
  ASSERT_TRUE(second.Open(u"Reader"));
  second.Write("two");
  first.Write("three");
  first.Close();
  second.Close();
  const auto files = std::vector<fs::directory_entry>(
      fs::directory_iterator(Product("Tarvo PDF Reader") / "Log"), fs::directory_iterator());
  ASSERT_EQ(files.size(), 1u);
  const auto lines = Lines(files[0].path());
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0].substr(lines[0].find("]", 30) + 1), "one");
  EXPECT_EQ(lines[1].substr(lines[1].find("]", 30) + 1), "two");
  EXPECT_EQ(lines[2].substr(lines[2].find("]", 30) + 1), "three");
  EXPECT_FALSE(fs::exists(Product("Tarvo PDF Editor")));
}

TEST_F(LogFolder, FileThatCannotOpenLeavesTheObjectQuiet) {
  testkit::WriteFile(tmp / "plain", "x");
  DiagnosticLog log;
  EXPECT_FALSE(log.OpenPath((tmp / "plain" / "x.log").u16string()));
  EXPECT_FALSE(log.IsOpen());
  log.Write("dropped %s", "line");
  EXPECT_EQ(testkit::ReadFile(tmp / "plain"), "x");
}
