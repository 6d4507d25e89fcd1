// The emulator's primitives that the SDK's own tests lean on, seen from a raw
// socket: scripted replies and the request log, each fault, holds and their
// release, TLS listeners, and a clean stop.
#include <gtest/gtest.h>
#include <json/json.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <netdb.h>
#include <poll.h>

#include <memory>
#include <vector>

#include "emulator/emulator.h"
#include "fixture.h"
#include "kit/emulator_client.h"
#include "kit/testkit.h"
#include "raw_client.h"

extern char** environ;

namespace {

using emulator_test::RawClient;
using emulator_test::SplitReply;

const std::string kEnvelope = "{\"ret\":0,\"message\":\"\",\"returned\":0,\"data\":[]}";

class EmulatorTest : public emulator_test::EmulatorFixture {
 protected:
  // A body the faults below cut up at known places.
  void ScriptDigits(const std::string& path) {
    Json::Value rule(Json::objectValue);
    rule["method"] = "GET";
    rule["path"] = path;
    rule["body"] = "0123456789";
    rule["times"] = -1;
    ASSERT_NE(emu_->Script(rule), 0u) << emu_->last_error();
  }
};

TEST_F(EmulatorTest, ScriptedRepliesAreCountedAndTheLogKeepsTheWireForm) {
  Json::Value rule(Json::objectValue);
  rule["method"] = "GET";
  rule["path"] = "/svc/user s";
  rule["query"] = "access-token=T1";
  rule["status"] = 201;
  rule["body_b64"] = "AP8xAg==";  // 00 ff 31 02
  rule["headers"] = Json::Value(Json::arrayValue);
  rule["headers"].append(Json::Value(Json::arrayValue));
  rule["headers"][0].append("X-One");
  rule["headers"][0].append("1");
  rule["times"] = 2;
  ASSERT_NE(emu_->Script(rule), 0u) << emu_->last_error();

  // Four requests on one kept-alive connection: the rule answers twice, then
  // the default envelope; another query never matches.
  RawClient c(emu_->base_url());
  ASSERT_TRUE(c.ok());
  const std::vector<std::pair<std::string, std::string>> expected = {
      {"/svc/user%20s?access-token=T1", std::string("\0\xff\x31\x02", 4)},
      {"/svc/user s?access-token=T1", std::string("\0\xff\x31\x02", 4)},
      {"/svc/user%20s?access-token=T1", kEnvelope},
      {"/svc/user%20s?access-token=T2", kEnvelope},
  };
  size_t consumed = 0;
  for (const auto& e : expected) {
    ASSERT_TRUE(c.SendRequest("GET", e.first));
    std::string head, body;
    int status = 0;
    ASSERT_TRUE(c.ReadReply(consumed, &head, &body, &status));
    EXPECT_EQ(body, e.second) << e.first;
    EXPECT_EQ(status, e.second == kEnvelope ? 200 : 201);
    if (status == 201) {
      EXPECT_NE(head.find("\r\nX-One: 1\r\n"), std::string::npos);
    }
    consumed = c.data().size();
  }

  std::string body("a\0b\xfe", 4);
  ASSERT_TRUE(c.Send("POST /up?x=%s&y HTTP/1.1\r\nHost: h\r\nZ-Last: 1\r\nA-First: 2\r\n"
                     "Content-Length: 4\r\n\r\n" + body));
  ASSERT_TRUE(emu_->WaitForRequests(5));
  auto log = emu_->Requests();
  ASSERT_EQ(log.size(), 5u);
  EXPECT_EQ(log[1].target, "/svc/user s?access-token=T1");
  EXPECT_EQ(log[0].path, "/svc/user s");
  EXPECT_EQ(log[0].query, "access-token=T1");
  EXPECT_EQ(log[4].method, "POST");
  EXPECT_EQ(log[4].target, "/up?x=%s&y");
  EXPECT_EQ(log[4].body, body);
  ASSERT_GE(log[4].headers.size(), 3u);
  EXPECT_EQ(log[4].headers[1].first, "Z-Last");
  EXPECT_EQ(log[4].headers[2].first, "A-First");
  EXPECT_FALSE(log[4].tls);
  EXPECT_LT(log[0].seq, log[4].seq);
  EXPECT_LE(log[0].time_ms, log[4].time_ms);
}

// Faults that still deliver one whole reply; each case checks what arrived.
struct ShapeCase {
  const char* name;
  const char* fault;  // JSON of the fault's extra fields
  int status;
  const char* head_has;
  std::function<void(const std::string& body)> check;
};

class FaultShape : public EmulatorTest, public ::testing::WithParamInterface<ShapeCase> {};

TEST_P(FaultShape, DeliversTheShapedReply) {
  const ShapeCase& p = GetParam();
  Json::Value extra;
  ASSERT_TRUE(Json::Reader().parse(p.fault, extra));
  ASSERT_NE(emu_->FaultOnce("GET", "/svc", extra["kind"].asString(), extra), 0u)
      << emu_->last_error();
  RawClient c(emu_->base_url());
  ASSERT_TRUE(c.Send("GET /svc HTTP/1.1\r\nHost: h\r\nConnection: close\r\n\r\n"));
  ASSERT_TRUE(c.ReadToEnd());
  std::string head, body;
  int status = 0;
  ASSERT_TRUE(SplitReply(c.data(), &head, &body, &status)) << c.data();
  EXPECT_EQ(status, p.status);
  EXPECT_NE(head.find(p.head_has), std::string::npos) << head;
  p.check(body);
}

bool ParsesAsJson(const std::string& body, Json::Value* v) {
  Json::CharReaderBuilder b;
  std::unique_ptr<Json::CharReader> r(b.newCharReader());
  return r->parse(body.data(), body.data() + body.size(), v, nullptr);
}

INSTANTIATE_TEST_SUITE_P(
    Faults, FaultShape,
    ::testing::Values(
        ShapeCase{"EmptyBodyWithStatus", R"({"kind":"empty_body","status":503})", 503,
                  "Content-Length: 0\r\n", [](const std::string& b) { EXPECT_EQ(b, ""); }},
        ShapeCase{"EmptyBodyEndedByClose", R"({"kind":"empty_body","framing":"close"})", 200,
                  "Connection: close\r\n", [](const std::string& b) { EXPECT_EQ(b, ""); }},
        ShapeCase{"ContentLengthZero", R"({"kind":"content_length_zero"})", 200,
                  "Content-Length: 0\r\n", [](const std::string& b) { EXPECT_EQ(b, ""); }},
        ShapeCase{"ZeroByte", R"({"kind":"zero_byte","at":3})", 200, "Content-Length: 46\r\n",
                  [](const std::string& b) {
                    EXPECT_EQ(b, kEnvelope.substr(0, 3) + std::string(1, '\0') +
                                     kEnvelope.substr(3));
                  }},
        ShapeCase{"MalformedJson", R"({"kind":"malformed_json"})", 200, "application/json",
                  [](const std::string& b) {
                    Json::Value v;
                    EXPECT_FALSE(b.empty());
                    EXPECT_FALSE(ParsesAsJson(b, &v));
                  }},
        ShapeCase{"NonObjectRoot", R"({"kind":"non_object","json":[1,2]})", 200,
                  "application/json",
                  [](const std::string& b) {
                    Json::Value v;
                    ASSERT_TRUE(ParsesAsJson(b, &v));
                    EXPECT_TRUE(v.isArray());
                  }},
        ShapeCase{"ChunkedPieces", R"({"kind":"chunks","count":4,"chunked":true,"gap_ms":1})",
                  200, "Transfer-Encoding: chunked\r\n",
                  [](const std::string& b) { EXPECT_EQ(b, kEnvelope); }},
        ShapeCase{"PiecesUnderContentLength", R"({"kind":"chunks","count":4,"gap_ms":1})", 200,
                  "Content-Length: 45\r\n",
                  [](const std::string& b) { EXPECT_EQ(b, kEnvelope); }},
        ShapeCase{"Delay", R"({"kind":"delay","ms":10})", 200, "Content-Length: 45\r\n",
                  [](const std::string& b) { EXPECT_EQ(b, kEnvelope); }}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(EmulatorTest, ChunksArriveOneByOne) {
  ScriptDigits("/svc");
  Json::Value extra(Json::objectValue);
  extra["count"] = 3;
  extra["chunked"] = true;
  extra["step"] = true;  // each further piece waits for a release
  ASSERT_NE(emu_->FaultOnce("GET", "/svc", "chunks", extra), 0u);
  RawClient c(emu_->base_url());
  ASSERT_TRUE(c.SendRequest("GET", "/svc"));
  for (const char* piece : {"4\r\n0123\r\n", "3\r\n456\r\n"}) {
    ASSERT_TRUE(c.ReadUntil(piece));
    ASSERT_TRUE(emu_->WaitForStalls(1));
    EXPECT_TRUE(c.NothingPending());
    EXPECT_EQ(c.data().substr(c.data().size() - std::string(piece).size()), piece);
    EXPECT_EQ(emu_->Release(), 1);
  }
  ASSERT_TRUE(c.ReadUntil("3\r\n789\r\n0\r\n\r\n"));
}

TEST_F(EmulatorTest, StallBeforeHeadersHoldsUntilReleased) {
  ASSERT_NE(emu_->FaultOnce("GET", "/svc", "stall_before_headers"), 0u);
  RawClient c(emu_->base_url());
  ASSERT_TRUE(c.SendRequest("GET", "/svc?q=1"));
  ASSERT_TRUE(emu_->WaitForStalls(1));
  Json::Value stalls;
  ASSERT_TRUE(emu_->Call("GET", "stalls", Json::Value(), &stalls));
  ASSERT_EQ(stalls["stalls"].size(), 1u);
  EXPECT_EQ(stalls["stalls"][0]["target"].asString(), "/svc?q=1");
  EXPECT_EQ(stalls["stalls"][0]["phase"].asString(), "before_headers");
  EXPECT_TRUE(c.NothingPending());
  EXPECT_EQ(emu_->Release(stalls["stalls"][0]["id"].asUInt64()), 1);
  ASSERT_TRUE(c.ReadUntil(kEnvelope));
}

TEST_F(EmulatorTest, StallMidBodyHoldsTheRestUntilReleased) {
  ScriptDigits("/svc");
  Json::Value extra(Json::objectValue);
  extra["at"] = 4;
  ASSERT_NE(emu_->FaultOnce("GET", "/svc", "stall_mid_body", extra), 0u);
  RawClient c(emu_->base_url());
  ASSERT_TRUE(c.SendRequest("GET", "/svc"));
  ASSERT_TRUE(c.ReadUntil("\r\n\r\n0123"));
  ASSERT_TRUE(emu_->WaitForStalls(1));
  EXPECT_TRUE(c.NothingPending());
  EXPECT_NE(c.data().find("Content-Length: 10\r\n"), std::string::npos);
  emu_->Release();
  ASSERT_TRUE(c.ReadUntil("\r\n\r\n0123456789"));
}

TEST_F(EmulatorTest, StallEndsWhenTheClientCloses) {
  ASSERT_NE(emu_->FaultOnce("GET", "/svc", "stall_before_headers"), 0u);
  RawClient c(emu_->base_url());
  ASSERT_TRUE(c.SendRequest("GET", "/svc"));
  ASSERT_TRUE(emu_->WaitForStalls(1));
  c.Close();
  EXPECT_TRUE(testkit::WaitUntil(
      [&] {
        Json::Value s;
        return emu_->Call("GET", "stalls", Json::Value(), &s) && s["stalls"].empty();
      },
      std::chrono::seconds(10)));
}

TEST_F(EmulatorTest, ControlResetClosesHeldConnections) {
  ASSERT_NE(emu_->FaultOnce("GET", "/svc", "stall_before_headers"), 0u);
  RawClient c(emu_->base_url());
  ASSERT_TRUE(c.SendRequest("GET", "/svc"));
  ASSERT_TRUE(emu_->WaitForStalls(1));
  ASSERT_TRUE(emu_->Reset());
  ASSERT_TRUE(c.ReadToEnd());
  EXPECT_EQ(c.data(), "");
}

// Faults that end the connection: how it ends and what came before.
struct EndCase {
  const char* kind;
  bool reset;            // RST rather than an orderly close
  const char* received;  // everything the client gets
};

class ConnectionEnd : public EmulatorTest, public ::testing::WithParamInterface<EndCase> {};

TEST_P(ConnectionEnd, EndsAsAsked) {
  ScriptDigits("/svc");
  Json::Value extra(Json::objectValue);
  extra["at"] = 4;
  ASSERT_NE(emu_->FaultOnce("GET", "/svc", GetParam().kind, extra), 0u);
  RawClient c(emu_->base_url());
  ASSERT_TRUE(c.SendRequest("GET", "/svc"));
  ASSERT_TRUE(c.ReadToEnd());
  EXPECT_EQ(c.reset(), GetParam().reset);
  EXPECT_EQ(c.closed(), !GetParam().reset);
  std::string got = c.data();
  size_t head_end = got.find("\r\n\r\n");
  if (head_end != std::string::npos) got = "HEAD" + got.substr(head_end + 4);
  EXPECT_EQ(got, GetParam().received);
}

INSTANTIATE_TEST_SUITE_P(Faults, ConnectionEnd,
                         ::testing::Values(EndCase{"reset_before_headers", true, ""},
                                           EndCase{"reset_mid_body", true, "HEAD0123"},
                                           EndCase{"close_before_headers", false, ""},
                                           EndCase{"close_mid_body", false, "HEAD0123"}),
                         [](const auto& info) { return std::string(info.param.kind); });

TEST(EmulatorLifecycle, StopEndsHeldConnections) {
  tpcsdk::emulator::Emulator emulator;
  std::string error;
  ASSERT_TRUE(emulator.Start(tpcsdk::emulator::Options(), &error)) << error;
  testkit::EmulatorClient control(emulator.BaseUrl());
  ASSERT_NE(control.FaultOnce("GET", "/svc", "stall_before_headers"), 0u);
  RawClient c(emulator.BaseUrl());
  ASSERT_TRUE(c.SendRequest("GET", "/svc"));
  ASSERT_TRUE(control.WaitForStalls(1));
  // Inside another program the emulator is not ended from outside.
  EXPECT_FALSE(control.Call("POST", "shutdown"));
  emulator.Stop();
  ASSERT_TRUE(c.ReadToEnd());
  EXPECT_EQ(c.data(), "");
}

// The program ends cleanly on SIGTERM and on the control call that asks it to.
class EmulatorProgram : public ::testing::TestWithParam<bool> {};

TEST_P(EmulatorProgram, PrintsItsUrlServesAndStops) {
  const bool by_control_call = GetParam();
  int out[2];
  ASSERT_EQ(pipe(out), 0);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  posix_spawn_file_actions_addclose(&actions, out[0]);
  const char* argv[] = {TDOC_EMULATOR_BINARY, "--port", "0", "--print-url", nullptr};
  pid_t pid = 0;
  ASSERT_EQ(posix_spawn(&pid, TDOC_EMULATOR_BINARY, &actions, nullptr,
                        const_cast<char* const*>(argv), environ),
            0);
  posix_spawn_file_actions_destroy(&actions);
  close(out[1]);
  std::string line;
  pollfd p{out[0], POLLIN, 0};
  char ch = 0;
  while (line.find('\n') == std::string::npos && poll(&p, 1, 10000) > 0 &&
         read(out[0], &ch, 1) == 1) {
    line += ch;
  }
  close(out[0]);
  ASSERT_EQ(line.compare(0, 17, "http://127.0.0.1:"), 0) << line;
  std::string url = line.substr(0, line.size() - 1);

  testkit::HttpResult r = testkit::HttpExchange(url, "GET", "/2.0.0.0/A B/1.0/en/tdocApi.json");
  EXPECT_EQ(r.status, 200) << r.error;
  EXPECT_NE(r.body.find("\"tdc_users\":\"" + url + "/"), std::string::npos);

  if (by_control_call) {
    EXPECT_EQ(testkit::HttpExchange(url, "POST", "/_emulator/shutdown", "{}").status, 200);
  } else {
    ASSERT_EQ(kill(pid, SIGTERM), 0);
  }
  int status = -1;
  EXPECT_TRUE(testkit::WaitUntil([&] { return waitpid(pid, &status, WNOHANG) == pid; },
                                 std::chrono::seconds(10)));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

INSTANTIATE_TEST_SUITE_P(Ways, EmulatorProgram, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& info) {
                           return std::string(info.param ? "ControlCall" : "Sigterm");
                         });

// The extra TLS listeners: the certificate is of the kind asked for, and the
// listener serves and logs like the plain one.
class TlsListener : public EmulatorTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(TlsListener, ServesWithTheCertificateAskedFor) {
  const std::string kind = GetParam();
  std::string base = emu_->OpenTlsListener(kind);
  ASSERT_EQ(base.compare(0, 8, "https://"), 0) << emu_->last_error();
  EXPECT_EQ(emu_->OpenTlsListener(kind), base);  // one listener per kind

  std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> ctx(SSL_CTX_new(TLS_client_method()),
                                                        SSL_CTX_free);
  std::unique_ptr<SSL, decltype(&SSL_free)> ssl(SSL_new(ctx.get()), SSL_free);
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* res = nullptr;
  std::string hostport = base.substr(8);
  ASSERT_EQ(getaddrinfo("127.0.0.1", hostport.substr(hostport.rfind(':') + 1).c_str(), &hints,
                        &res),
            0);
  int fd = socket(res->ai_family, SOCK_STREAM, 0);
  ASSERT_EQ(connect(fd, res->ai_addr, res->ai_addrlen), 0);
  freeaddrinfo(res);
  SSL_set_fd(ssl.get(), fd);
  ASSERT_EQ(SSL_connect(ssl.get()), 1);
  X509* cert = SSL_get1_peer_certificate(ssl.get());
  ASSERT_NE(cert, nullptr);
  bool expired = X509_cmp_current_time(X509_get0_notAfter(cert)) < 0;
  bool names_loopback = X509_check_ip_asc(cert, "127.0.0.1", 0) == 1;
  X509_free(cert);
  EXPECT_EQ(expired, kind == "expired");
  EXPECT_EQ(names_loopback, kind != "wrong_name");

  std::string req = "GET /tls-check HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n";
  ASSERT_EQ(SSL_write(ssl.get(), req.data(), static_cast<int>(req.size())),
            static_cast<int>(req.size()));
  std::string reply;
  char buf[4096];
  int n;
  while ((n = SSL_read(ssl.get(), buf, sizeof(buf))) > 0) reply.append(buf, n);
  close(fd);
  EXPECT_NE(reply.find(kEnvelope), std::string::npos);
  auto log = emu_->RequestsTo("/tls-check");
  ASSERT_EQ(log.size(), 1u);
  EXPECT_TRUE(log[0].tls);
  EXPECT_EQ(log[0].listener, base);
}

INSTANTIATE_TEST_SUITE_P(Kinds, TlsListener,
                         ::testing::Values("valid", "expired", "wrong_name"));

}  // namespace
