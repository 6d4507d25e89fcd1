// The platform object and the exports, through the host's interface, where no live
// service is needed.
#include <gtest/gtest.h>

#include <string>

#include "support/out_buffer.h"
#include "support/utf.h"
#include "tpcsdk/IPDFPlatform.h"
#include "tpcsdk/ITetherdocServer.h"

namespace {

IPDFPlatform* Platform() {
  IPDFPlatform* p = TDC_GetTDOCPlatform();
  EXPECT_NE(p, nullptr);
  return p;
}

std::u16string Take(TDC_LPWSTR block) {
  std::u16string s = tpcsdk::WideArg(block);
  EXPECT_EQ(TDC_ReleaseLPWSTR(block), TDC_HRESULT_OK);
  return s;
}

TDC_LPCWSTR W(const std::u16string& s) { return reinterpret_cast<TDC_LPCWSTR>(s.c_str()); }

struct InitCase {
  const char* name;
  const char16_t* host;  // null for a null host
  TDC_CLIENT_INFO info;
  bool nullInfo;
  int expected;
};

class InitApiRefuses : public ::testing::TestWithParam<InitCase> {};

TEST_P(InitApiRefuses, WithoutTouchingTheNetworkOrKeepingAClient) {
  const InitCase& c = GetParam();
  TDC_LPWSTR domain = nullptr;
  TDC_CLIENT_INFO info = c.info;
  const auto* host = reinterpret_cast<TDC_LPCWSTR>(c.host);
  EXPECT_EQ(Platform()->InitApi(host, c.nullInfo ? nullptr : &info, &domain), c.expected);
  EXPECT_EQ(domain, nullptr);
  if (host) {
    EXPECT_EQ(Platform()->GetServerByHost(host), nullptr);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Arguments, InitApiRefuses,
    ::testing::Values(
        InitCase{"NullHost", nullptr, {"en", "", "App", "1.0"}, false, TDC_HRESULT_FAILED},
        InitCase{"EmptyHost", u"", {"en", "", "App", "1.0"}, false, TDC_HRESULT_FAILED},
        InitCase{"EmptyLanguage", u"http://127.0.0.1:9", {"", "", "App", "1.0"}, false,
                 TDC_HRESULT_BAD_ARGUMENT},
        InitCase{"EmptyName", u"http://127.0.0.1:9", {"en", "", "", "1.0"}, false,
                 TDC_HRESULT_BAD_ARGUMENT},
        InitCase{"EmptyVersion", u"http://127.0.0.1:9", {"en", "", "App", ""}, false,
                 TDC_HRESULT_BAD_ARGUMENT},
        InitCase{"NullInfo", u"http://127.0.0.1:9", {}, true, TDC_HRESULT_FAILED},
        InitCase{"NullName", u"http://127.0.0.1:9", {"en", "", nullptr, "1.0"}, false,
                 TDC_HRESULT_FAILED}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(Platform, ReleaseDoesNotEndTheSingleton) {
  IPDFPlatform* first = Platform();
  TDC_ReleaseTDOCPlatform();
  EXPECT_EQ(TDC_GetTDOCPlatform(), first);
}

TEST(Platform, CurrentDomainKeepsAnyTextExactly) {
  const std::u16string text = u"https://\u00E9xample.test/\U0001F600 path";
  Platform()->SetCurrentDomain(W(text));
  TDC_LPWSTR out = nullptr;
  ASSERT_EQ(Platform()->GetCurrentDomain(&out), TDC_HRESULT_OK);
  EXPECT_EQ(Take(out), text);
  // A host that has no client for the domain still finds none: the current domain
  // is the host's note, not a client's.
  EXPECT_EQ(Platform()->GetServerByDomain(W(text)), nullptr);
  Platform()->SetCurrentDomain(W(u""));
  TDC_LPWSTR untouched = reinterpret_cast<TDC_LPWSTR>(&out);
  EXPECT_EQ(Platform()->GetCurrentDomain(&untouched), TDC_HRESULT_FAILED);
  EXPECT_EQ(untouched, reinterpret_cast<TDC_LPWSTR>(&out));
}

TEST(Platform, NullArgumentsAreRefusedNotFollowed) {
  EXPECT_EQ(Platform()->GetCurrentDomain(nullptr), TDC_HRESULT_FAILED);
  EXPECT_EQ(Platform()->GetServerByHost(nullptr), nullptr);
  EXPECT_EQ(Platform()->GetServerByDomain(nullptr), nullptr);
  // A null domain clears the current one, as the empty text does.
  Platform()->SetCurrentDomain(W(u"https://d.example"));
  Platform()->SetCurrentDomain(nullptr);
  TDC_LPWSTR out = nullptr;
  EXPECT_EQ(Platform()->GetCurrentDomain(&out), TDC_HRESULT_FAILED);
  EXPECT_EQ(out, nullptr);
}

TEST(Exports, ReleaseFamilyFreesLibraryBlocksAndRefusesNull) {
  using Release = int (*)(void*);
  const Release family[] = {
      [](void* p) { return TDC_ReleaseLPSTR(static_cast<char*>(p)); },
      [](void* p) { return TDC_ReleaseLPWSTR(static_cast<TDC_LPWSTR>(p)); },
      TDC_ReleaseBuffer, TDC_ReleaseBuffer2};
  for (Release release : family) {
    EXPECT_EQ(release(nullptr), TDC_HRESULT_FAILED);
    EXPECT_EQ(release(tpcsdk::NewTextBlock("x")), TDC_HRESULT_OK);
    EXPECT_EQ(release(tpcsdk::NewWideBlock(u"wide")), TDC_HRESULT_OK);
  }
}

TEST(Exports, KeptEntryPointsAnswerAsOlderHostsExpect) {
  for (int32_t level : {-1, 0, 1, 2, 3, 100}) EXPECT_EQ(TDC_UpLoadGrayLog(level), TDC_HRESULT_FAILED);
  EXPECT_EQ(TDC_AddShareReviewUser(nullptr), TDC_HRESULT_OK);
  int anything = 0;
  EXPECT_EQ(TDC_AddShareReviewUser(&anything), TDC_HRESULT_FAILED);
}

}  // namespace
