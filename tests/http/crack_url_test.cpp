// URL cracking gives WinHttpCrackUrl's answers; under wine the same table runs
// against WinHTTP itself.
#include <gtest/gtest.h>

#include <string>

#include "kit/testkit.h"
#include "os/http.h"

using namespace tpcsdk::os;

namespace {

struct CrackCase {
  const char* name;
  std::u16string url;
  bool decode;
  uint32_t error;  // 0: success with the parts below
  uint32_t scheme;
  std::u16string scheme_name, host;
  uint16_t port;
  std::u16string user, password, path, extra;
};

CrackCase Ok(const char* name, std::u16string url, uint32_t scheme, std::u16string scheme_name,
             std::u16string host, uint16_t port, std::u16string path, std::u16string extra,
             std::u16string user = u"", std::u16string password = u"", bool decode = true) {
  return {name, std::move(url), decode, 0, scheme, std::move(scheme_name), std::move(host), port,
          std::move(user), std::move(password), std::move(path), std::move(extra)};
}

CrackCase Bad(const char* name, std::u16string url, uint32_t error) {
  return {name, std::move(url), true, error, 0, u"", u"", 0, u"", u"", u"", u""};
}

std::u16string Repeat(size_t n, char16_t c) { return std::u16string(n, c); }

class CrackUrl : public ::testing::TestWithParam<CrackCase> {};

TEST_P(CrackUrl, AnswersLikeWinHttp) {
  const CrackCase& c = GetParam();
  HttpUrlParts p;
  const bool ok = HttpCrackUrl(c.url, c.decode, &p);
  if (c.error) {
    EXPECT_FALSE(ok);
    EXPECT_EQ(HttpLastError(), c.error);
    return;
  }
  ASSERT_TRUE(ok) << HttpLastError();
  EXPECT_EQ(p.scheme, c.scheme);
  EXPECT_TRUE(p.scheme_name == c.scheme_name);
  EXPECT_TRUE(p.host == c.host);
  EXPECT_EQ(p.port, c.port);
  EXPECT_TRUE(p.user == c.user);
  EXPECT_TRUE(p.password == c.password);
  EXPECT_TRUE(p.path == c.path) << p.path.size();
  EXPECT_TRUE(p.extra == c.extra) << p.extra.size();
}

INSTANTIATE_TEST_SUITE_P(
    Table, CrackUrl,
    ::testing::Values(
        Ok("Decoded", u"http://h/p%20q?a=%41%25&b=%zz#f%20g", 1, u"http", u"h", 80, u"/p q",
           u"?a=A%&b=%zz#f g"),
        Ok("NotDecoded", u"http://h/p%20q?a=%41%25", 1, u"http", u"h", 80, u"/p%20q", u"?a=%41%25",
           u"", u"", false),
        Ok("BytesNotFoldedIntoUtf8", u"http://h/p%e9%C3%A9", 1, u"http", u"h", 80,
           u"/p\u00e9\u00c3\u00a9", u""),
        Ok("HostDecoded", u"http://h%41st/", 1, u"http", u"hAst", 80, u"/", u""),
        Ok("LoneOrShortPercent", u"http://h/%/%4", 1, u"http", u"h", 80, u"/%/%4", u""),
        Ok("SecureWithCredentials", u"HTTPS://U:P@Host:8443/p", 2, u"HTTPS", u"Host", 8443, u"/p",
           u"", u"U", u"P"),
        Ok("UserOnly", u"http://u@h/", 1, u"http", u"h", 80, u"/", u"", u"u"),
        Ok("NoPath", u"http://host", 1, u"http", u"host", 80, u"", u""),
        Ok("HttpsDefaultPort", u"https://h/x", 2, u"https", u"h", 443, u"/x", u""),
        Ok("EmptyPortIsDefault", u"http://host:/p", 1, u"http", u"host", 80, u"/p", u""),
        Ok("PortZero", u"Http://h:0/", 1, u"Http", u"h", 0, u"/", u""),
        Ok("PortNotNumeric", u"http://host:abc/", 1, u"http", u"host", 0, u"/", u""),
        Ok("EmptyHost", u"http:///p", 1, u"http", u"", 80, u"/p", u""),
        Ok("BlankKept", u"http://h/a b", 1, u"http", u"h", 80, u"/a b", u""),
        Ok("QueryKeepsSlashes", u"http://h/p?q/r?s", 1, u"http", u"h", 80, u"/p", u"?q/r?s"),
        Ok("LongestQuery", u"http://h/?" + Repeat(1022, u'a'), 1, u"http", u"h", 80, u"/",
           u"?" + Repeat(1022, u'a')),
        Ok("LongestPath", u"http://h/" + Repeat(1022, u'a'), 1, u"http", u"h", 80,
           u"/" + Repeat(1022, u'a'), u""),
        Ok("LongestHost", u"http://" + Repeat(1023, u'b') + u"/", 1, u"http", Repeat(1023, u'b'),
           80, u"/", u""),
        Bad("QueryTooLong", u"http://h/?" + Repeat(1023, u'a'), kHttpErrorInsufficientBuffer),
        Bad("PathTooLong", u"http://h/" + Repeat(1023, u'a'), kHttpErrorInsufficientBuffer),
        Bad("HostTooLong", u"http://" + Repeat(1024, u'b') + u"/", kHttpErrorInsufficientBuffer),
        Bad("DecodedStillTooLong", u"http://h/?" + Repeat(1020, u'a') + u"%41%41%41%41",
            kHttpErrorInsufficientBuffer),
        Bad("OtherScheme", u"ftp://x/", kHttpErrorUnrecognizedScheme),
        Bad("NoScheme", u"noscheme", kHttpErrorUnrecognizedScheme),
        Bad("Empty", u"", kHttpErrorUnrecognizedScheme),
        Bad("SchemeRelative", u"//h/p", kHttpErrorUnrecognizedScheme),
        Bad("Mailto", u"mailto:x@y", kHttpErrorUnrecognizedScheme),
        Bad("NoSlashes", u"http:h/p", kHttpErrorInvalidUrl),
        Bad("NothingAfterScheme", u"http://", kHttpErrorInvalidUrl),
        Bad("PortTooLarge", u"http://host:99999/", kHttpErrorInvalidUrl)),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace

// The Linux counterpart of the user's proxy settings: the environment, in WinHTTP's
// proxy-list form.
TEST(HttpProxyConfig, ReadFromTheEnvironmentInWinHttpForm) {
#ifdef _WIN32
  GTEST_SKIP() << "Windows reads the user's own proxy configuration";
#else
  testkit::ScopedEnv http("http_proxy", "http://p1:3128");
  testkit::ScopedEnv https("https_proxy", "p2:8443");
  testkit::ScopedEnv no("no_proxy", "localhost,.corp.example");
  HttpProxyConfig c;
  ASSERT_TRUE(HttpGetUserProxyConfig(&c));
  EXPECT_TRUE(c.proxy == u"http=http://p1:3128;https=p2:8443");
  EXPECT_TRUE(c.bypass == u"localhost;.corp.example");
  testkit::ScopedEnv none1("http_proxy", ""), none2("https_proxy", ""), none3("no_proxy", "");
  testkit::ScopedEnv up1("HTTP_PROXY", ""), up2("HTTPS_PROXY", ""), up3("NO_PROXY", "");
  ASSERT_TRUE(HttpGetUserProxyConfig(&c));
  EXPECT_TRUE(c.proxy.empty());
  EXPECT_TRUE(c.bypass.empty());
#endif
}
