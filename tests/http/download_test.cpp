// The blocking GET of file downloads, pulled as WinHTTP's synchronous mode hands the
// body out, against local servers.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "http/raw_server.h"
#include "os/http.h"
#include "os/http_download.h"
#include "support/utf.h"

using namespace tpcsdk::os;
using httptest::Connection;
using httptest::RawServer;
using httptest::Received;

namespace {

// Pulls the whole body: ask what is there, read it in steps of at most `step` bytes.
bool PullBody(HttpBlockingGet& get, uint32_t step, std::string* body) {
  for (;;) {
    uint32_t available = 0;
    if (!get.QueryDataAvailable(&available)) return false;
    if (available == 0) return true;
    while (available > 0) {
      std::vector<char> buf(std::min(available, step));
      uint32_t read = 0;
      if (!get.Read(buf.data(), static_cast<uint32_t>(buf.size()), &read) || read == 0) return false;
      body->append(buf.data(), read);
      available -= read;
    }
  }
}

}  // namespace

// A redirect to another server is followed; the final status, headers and the whole
// body (sent in pieces) come from there.
TEST(HttpBlockingGet, FollowsRedirectToAnotherServerAndPullsTheBody) {
  RawServer* final_server = nullptr;
  const std::string body(100000, 'x');
  RawServer target([&](Connection& c) {
    Received r;
    if (!c.Read(&r)) return;
    final_server->Record(r);
    c.Send("HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size() + 4) +
           "\r\nConnection: close\r\n\r\n");
    c.Send(body.substr(0, 50000));
    c.Send(body.substr(50000) + "tail");
    c.PeerClosedWithin(10000);
  });
  final_server = &target;
  RawServer first([&](Connection& c) {
    Received r;
    if (!c.Read(&r)) return;
    c.Send("HTTP/1.1 302 Found\r\nLocation: http://127.0.0.1:" + std::to_string(target.port()) +
           "/elsewhere/file.pdf\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
    c.PeerClosedWithin(10000);
  });

  HttpBlockingGet get;
  ASSERT_TRUE(get.Open(u"WindowsGet/1.0", false, u"127.0.0.1", first.port(), u"/file.pdf"))
      << HttpLastError();
  EXPECT_EQ(get.Status(), 200u);
  std::u16string length;
  ASSERT_TRUE(get.Header(u"Content-Length", &length));
  EXPECT_TRUE(length == tpcsdk::Utf8ToUtf16(std::to_string(body.size() + 4)));
  EXPECT_FALSE(get.Header(u"X-Absent", &length));
  std::string got;
  ASSERT_TRUE(PullBody(get, 16384, &got));
  EXPECT_TRUE(got == body + "tail") << got.size();
  const std::vector<Received> seen = target.received();
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].request_line, "GET /elsewhere/file.pdf HTTP/1.1");
}

TEST(HttpBlockingGet, ReportsStatusAndFailure) {
  RawServer server([](Connection& c) {
    Received r;
    if (!c.Read(&r)) return;
    c.Send("HTTP/1.1 404 Not Found\r\nContent-Length: 4\r\nConnection: close\r\n\r\ngone");
    c.PeerClosedWithin(10000);
  });
  HttpBlockingGet missing;
  ASSERT_TRUE(missing.Open(u"a", false, u"127.0.0.1", server.port(), u"/x"));
  EXPECT_EQ(missing.Status(), 404u);
  std::string got;
  ASSERT_TRUE(PullBody(missing, 2, &got));
  EXPECT_EQ(got, "gone");

  HttpBlockingGet refused;
  EXPECT_FALSE(refused.Open(u"a", false, u"127.0.0.1", httptest::ClosedPort(), u"/x"));
  EXPECT_EQ(HttpLastError(), kHttpErrorCannotConnect);
  EXPECT_EQ(refused.Status(), 0u);
}
