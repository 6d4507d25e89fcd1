// The wrapper settings' update time: date texts to OLE dates, the half-second
// comparison, the stored time's registry key, and the files' names by language.
#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "operations/wrappers.h"
#include "support/utf.h"

namespace {

using namespace tpcsdk::wrappers;
using tpcsdk::Utf8ToUtf16;

constexpr double kSecond = 1.0 / 86400;
// 2026-01-05 10:20:30
constexpr double kJan5 = 46027 + (10 * 3600 + 20 * 60 + 30) * kSecond;

struct DateCase {
  const char* text;
  double expected;
};

void ExpectDates(const DateCase* cases, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    const double got = ParseUpdateTime(Utf8ToUtf16(cases[i].text));
    EXPECT_NEAR(got, cases[i].expected, 1e-3 * kSecond) << '"' << cases[i].text << '"';
  }
}

// Forms both the system's parser and ours read the same way; what neither knows is a
// type mismatch, which gives 0.0, never a guess.
TEST(ParseUpdateTime, FormsTheServiceSends) {
  const DateCase cases[] = {
      {"2026-01-05 10:20:30", kJan5},
      {"2026/01/05 10:20:30", kJan5},
      {"2026-01-05 10:20", kJan5 - 30 * kSecond},
      {"2000-01-01", 36526.0},
      {"2024-02-29 00:00:00", 45351.0},
      {"", 0.0},
      {"not a date", 0.0},
      {"2026-01-05 10:20:30 junk", 0.0},
  };
  ExpectDates(cases, std::size(cases));
  // A wide C text ends at its NUL.
  EXPECT_NEAR(ParseUpdateTime(std::u16string(u"2026-01-05 10:20:30\0junk", 24)), kJan5, 1e-8);
}

#ifndef _WIN32
// Our own parser: ISO 8601 with "T", zones, fractions, 12-hour clocks, dates before
// 1899-12-30, and the texts it refuses.
TEST(ParseUpdateTime, OwnParserFormsAndRefusals) {
  const DateCase cases[] = {
      {"2026-01-05T10:20:30", kJan5},
      {"2026-01-05T10:20:30Z", kJan5},
      {"2026-01-05T10:20:30.5Z", kJan5 + 0.5 * kSecond},
      {"2026-01-05T12:20:30+02:00", kJan5},
      {"2026-01-05T08:20:30-0200", kJan5},
      {"  2026-1-5   10:20:30  ", kJan5},
      {"2026/01/05 10:20:30 PM", kJan5 + 0.5},
      {"2026/01/05 12:00:00 am", 46027.0},
      {"1899-12-29 06:00:00", -1.25},
      {"0100-01-01", -657434.0},
      {"9999-12-31 23:59:59", 2958465 + 86399 * kSecond},
      // refused
      {"2023-02-29", 0.0},
      {"2026-13-01", 0.0},
      {"2026-01-32", 0.0},
      {"2026-01-05 24:00:00", 0.0},
      {"2026-01-05 10:60", 0.0},
      {"2026-01-05 10:20:30.", 0.0},
      {"2026-01/05", 0.0},
      {"26-01-05", 0.0},
      {"0099-12-31", 0.0},
      {"2026-01-05x", 0.0},
      {"2026-01-05T10:20:30 PM", 0.0},
      {"2026-01-05 13:00 PM", 0.0},
      {"2026-01-05 10:20:30+02:00", 0.0},
      {"2026-01-05T10:20:30+24:00", 0.0},
      {"\xEF\xBC\x92\xEF\xBC\x90\xEF\xBC\x92\xEF\xBC\x96-01-05", 0.0},  // full-width digits
  };
  ExpectDates(cases, std::size(cases));
}
#endif

TEST(SameUpdateTime, HalfSecondDecides) {
  struct Case {
    double a, b;
    bool same;
  } const cases[] = {
      {kJan5, kJan5, true},
      {kJan5, kJan5 + 0.4 * kSecond, true},
      {kJan5 + 0.4 * kSecond, kJan5, true},
      {kJan5, kJan5 + 0.6 * kSecond, false},
      {kJan5 + 0.6 * kSecond, kJan5, false},
      {kJan5, kJan5 + 1, false},
      // 1899-12-29 23:59:59.8 and 1899-12-30 00:00:00 are 0.2 s apart, though their
      // values are two days apart.
      {-(1 + 86399.8 * kSecond), 0.0, true},
      {-1.25, -(1.25 + 0.4 * kSecond), true},
      {-1.25, -(1.25 + 0.6 * kSecond), false},
      // the failure values: two type mismatches are the same, a mismatch and
      // another failure are not
      {0.0, 0.0, true},
      {-1.0, 0.0, false},
      {1e300, -1e300, false},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(SameUpdateTime(c.a, c.b), c.same) << c.a << " vs " << c.b;
  }
}

TEST(WrapperNames, KeyAndFilesFollowTheIdentity) {
  EXPECT_EQ(UpdateTimeKey("My App", "12.1.3", u"host.example", true),
            u"SOFTWARE\\Tarvo Software\\My App 12.0\\Plugins\\host.example\\");
  EXPECT_EQ(UpdateTimeKey("My App", "12.1.3", u"host.example", false),
            u"SOFTWARE\\Tarvo Software\\My App 12.0\\plugins\\host.example");
  // Without a "." the version gives nothing before ".0".
  EXPECT_EQ(UpdateTimeKey("My App", "12", u"h", false), u"SOFTWARE\\Tarvo Software\\My App .0\\plugins\\h");

  struct Case {
    const char* al;
    bool chinese;
  } const cases[] = {{"zh-cn", true}, {"ZH-CN", true}, {"zh-CN", true}, {"zh-cnx", false},
                     {"zh", false},   {"en-us", false}, {"", false}};
  for (const Case& c : cases) {
    const std::u16string suffix = c.chinese ? u"_cn.pdf" : u"_en.pdf";
    EXPECT_EQ(WrapperFileName(WrapperFile::kProtect, c.al), u"ProtectWrapper" + suffix) << c.al;
    EXPECT_EQ(WrapperFileName(WrapperFile::kRequestPermission, c.al), u"ReqPermWrapper" + suffix);
    EXPECT_EQ(WrapperFileName(WrapperFile::kRequestPermissionLicense, c.al),
              u"ReqPermWrapper_LicenseCode" + suffix);
  }
}

}  // namespace
