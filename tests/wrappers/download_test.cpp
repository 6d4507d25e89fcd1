// The blocking file download against tdoc-emulator, into real files in a temporary
// folder: what arrives under the final name, that a failure leaves neither a file
// there nor a ".part" file, and what goes over the wire.
#include <gtest/gtest.h>
#include <json/json.h>

#include <filesystem>
#include <string>
#include <thread>

#include "http_transport/file_download.h"
#include "kit/emulator_client.h"
#include "kit/testkit.h"

namespace {

namespace fs = std::filesystem;
using testkit::EmulatorClient;

// Serves body at path for every GET, without a content type of its own.
void Serve(EmulatorClient* emu, const std::string& path, const std::string& body, int status = 200,
           Json::Value headers = Json::Value()) {
  Json::Value rule;
  rule["method"] = "GET";
  rule["path"] = path;
  rule["status"] = status;
  rule["body"] = body;
  rule["times"] = -1;
  rule["no_content_type"] = true;
  if (!headers.isNull()) rule["headers"] = headers;
  ASSERT_NE(emu->Script(rule), 0u) << emu->last_error();
}

class Download : public ::testing::Test {
 protected:
  bool Get(const std::string& url) { return Get(url, target_); }
  bool Get(const std::string& url, const fs::path& to) {
    return tpcsdk::DownloadFile(tpcsdk_url(url), to.u16string());
  }
  static std::u16string tpcsdk_url(const std::string& url) {
    return std::u16string(url.begin(), url.end());
  }
  fs::path Part() const { return fs::path(target_.u16string() + u".part"); }

  testkit::TempDir dir_;
  fs::path target_ = dir_ / "file.pdf";
};

// ---- one table of outcomes: the result, and the file under its final name -------

std::string Big() {
  std::string s;
  for (int i = 0; s.size() < 300000; ++i) s += "chunk " + std::to_string(i) + "\n";
  return s;
}

struct Outcome {
  const char* name;
  int status;
  std::string body;
  const char* fault;  // a fault kind on the reply, or nullptr
  bool ok;
};

void PrintTo(const Outcome& o, std::ostream* os) { *os << o.name; }

class Outcomes : public Download, public ::testing::WithParamInterface<Outcome> {};

// A redirect to another host name leads to the file; the faults cut the body at
// 100,000 bytes, or send it in pieces.
TEST_P(Outcomes, FileArrivesWholeOrNotAtAll) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  const Outcome& o = GetParam();
  std::string other = emu->base_url();
  other.replace(other.find("127.0.0.1"), 9, "localhost");
  Json::Value location(Json::objectValue);
  location["Location"] = other + "/files/b.pdf";
  Serve(emu, "/files/a.pdf", "", 302, location);
  Serve(emu, "/files/b.pdf", o.body, o.status);
  if (o.fault) {
    Json::Value f;
    f["at"] = 100000;
    f["count"] = 7;
    // Pieces without a length; the cut bodies keep theirs, which shows the cut.
    f["chunked"] = std::string(o.fault) == "chunks";
    f["gap_ms"] = 1;
    ASSERT_NE(emu->FaultOnce("GET", "/files/b.pdf", o.fault, f), 0u);
  }
  EXPECT_EQ(Get(emu->base_url() + "/files/a.pdf"), o.ok);
  EXPECT_FALSE(fs::exists(Part()));
  if (o.ok) {
    EXPECT_TRUE(testkit::ReadFile(target_) == o.body) << testkit::ReadFile(target_).size();
  } else {
    EXPECT_FALSE(fs::exists(target_));
  }
}

INSTANTIATE_TEST_SUITE_P(
    Download, Outcomes,
    ::testing::Values(Outcome{"Ok200", 200, "%PDF-1.4 body", nullptr, true},
                      Outcome{"Created201", 201, "made", nullptr, true},
                      Outcome{"EmptyBody", 200, "", nullptr, true},
                      Outcome{"NotFound", 404, "gone", nullptr, false},
                      Outcome{"ChunkedWithoutLength", 200, Big(), "chunks", true},
                      Outcome{"ResetMidBody", 200, Big(), "reset_mid_body", false},
                      // orderly close before the stated length
                      Outcome{"ClosedMidBody", 200, Big(), "close_mid_body", false},
                      Outcome{"NoReply", 200, "x", "close_before_headers", false}),
    [](const ::testing::TestParamInfo<Outcome>& info) { return std::string(info.param.name); });

// Only the path is asked for: the query and fragment of the URL stay behind. The
// request carries the download's own agent and no token.
TEST_F(Download, SendsThePathAloneAndPrintsTheSize) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  Serve(emu, "/files/q.pdf", "eleven byte");
  testing::internal::CaptureStdout();
  const bool ok = Get(emu->base_url() + "/files/q.pdf?access-token=T&x=1#frag");
  const std::string printed = testing::internal::GetCapturedStdout();
  ASSERT_TRUE(ok);
  EXPECT_NE(printed.find("File size: 11\n"), std::string::npos) << printed;
  const auto sent = emu->RequestsTo("/files/q.pdf");
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].target, "/files/q.pdf");
  EXPECT_EQ(sent[0].Header("User-Agent"), "WindowsGet/1.0");
  EXPECT_EQ(sent[0].method, "GET");
}

// An existing file is never replaced; the failed attempt leaves no ".part" file, and
// a stale, longer ".part" file of an earlier run leaves no tail in the next download.
TEST_F(Download, ExistingFileStaysAndStalePartIsCut) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  Serve(emu, "/files/a.pdf", "new");
  testkit::WriteFile(target_, "old content");
  EXPECT_FALSE(Get(emu->base_url() + "/files/a.pdf"));
  EXPECT_EQ(testkit::ReadFile(target_), "old content");
  EXPECT_FALSE(fs::exists(Part()));

  fs::remove(target_);
  testkit::WriteFile(Part(), std::string(5000, 'z'));
  EXPECT_TRUE(Get(emu->base_url() + "/files/a.pdf"));
  EXPECT_EQ(testkit::ReadFile(target_), "new");
  EXPECT_FALSE(fs::exists(Part()));
}

TEST_F(Download, UnusableUrlOrPlaceGivesFalseAndNoFile) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  Serve(emu, "/files/a.pdf", "body");
  for (const char* url : {"", "not a url", "ftp://127.0.0.1/files/a.pdf", "http://"}) {
    EXPECT_FALSE(Get(url)) << url;
  }
  // A folder that isn't there, an empty destination, a destination that is a folder.
  EXPECT_FALSE(Get(emu->base_url() + "/files/a.pdf", dir_ / "missing" / "a.pdf"));
  EXPECT_FALSE(tpcsdk::DownloadFile(tpcsdk_url(emu->base_url() + "/files/a.pdf"), u""));
  fs::create_directory(target_);
  EXPECT_FALSE(Get(emu->base_url() + "/files/a.pdf"));
  EXPECT_TRUE(fs::is_directory(target_));
  EXPECT_FALSE(fs::exists(Part()));
  EXPECT_FALSE(fs::exists(dir_ / "missing"));
}

// Server certificates are checked as the platform does by default: the emulator's
// self-signed one is not trusted.
TEST_F(Download, UntrustedCertificateFails) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  const std::string tls = emu->OpenTlsListener("valid");
  ASSERT_FALSE(tls.empty()) << emu->last_error();
  Serve(emu, "/files/a.pdf", "secret");
  EXPECT_FALSE(Get(tls + "/files/a.pdf"));
  EXPECT_FALSE(fs::exists(target_));
  EXPECT_FALSE(fs::exists(Part()));
}

// A second download of the same file while the first still writes its ".part" file
// fails and leaves that file to the first, which then completes whole.
TEST_F(Download, SecondWriterOfTheSameFileStandsBack) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  const std::string body = Big();
  Serve(emu, "/files/a.pdf", body);
  Json::Value f;
  f["at"] = 1000;
  ASSERT_NE(emu->FaultOnce("GET", "/files/a.pdf", "stall_mid_body", f), 0u);
  bool first = false;
  std::thread t([&] { first = Get(emu->base_url() + "/files/a.pdf"); });
  const bool held = emu->WaitForStalls(1) &&
                    testkit::WaitUntil([&] { return fs::exists(Part()); }, std::chrono::seconds(10));
  EXPECT_TRUE(held);
  if (held) {
    EXPECT_FALSE(Get(emu->base_url() + "/files/a.pdf"));
  }
  EXPECT_TRUE(fs::exists(Part()));
  emu->Release();
  t.join();
  EXPECT_TRUE(first);
  EXPECT_TRUE(testkit::ReadFile(target_) == body);
  EXPECT_FALSE(fs::exists(Part()));
}

#ifndef _WIN32
// The environment's proxy carries the request: the host name in the URL is resolved
// by the proxy, not here.
TEST_F(Download, EnvironmentProxyIsUsed) {
  TESTKIT_EMULATOR_OR_SKIP(emu);
  testkit::ScopedEnv proxy("http_proxy", emu->base_url());
  testkit::ScopedEnv none("no_proxy", "");
  EXPECT_TRUE(Get("http://wrappers.example.invalid/files/wrappers/p.pdf"));
  const auto sent = emu->Requests();
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].target, "http://wrappers.example.invalid/files/wrappers/p.pdf");
  EXPECT_TRUE(fs::exists(target_));
}
#endif

}  // namespace
