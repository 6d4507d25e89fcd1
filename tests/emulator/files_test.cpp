// The files the emulator serves for downloads: the wrapper PDFs it makes,
// byte runs, and the redirect, status, chunked and slow wrappers around them.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <string>

#include "fixture.h"
#include "raw_client.h"

namespace {

using emulator_test::RawClient;

struct FileReply {
  int status = 0;
  std::string head, body;
};

class FilesTest : public emulator_test::EmulatorFixture {
 protected:
  FileReply Get(const std::string& target, const std::string& method = "GET") {
    FileReply r;
    RawClient c(emu_->base_url());
    EXPECT_TRUE(c.ok());
    EXPECT_TRUE(c.SendRequest(method, target));
    EXPECT_TRUE(c.ReadReply(0, &r.head, &r.body, &r.status)) << c.data();
    return r;
  }
};

bool HeadHas(const std::string& head, const std::string& line) {
  return head.find("\r\n" + line + "\r\n") != std::string::npos;
}

// Checks the structure a PDF reader relies on: header, trailer, and every
// cross-reference offset landing on its object; the stream length right.
void ExpectWellFormedPdf(const std::string& pdf) {
  ASSERT_EQ(pdf.compare(0, 8, "%PDF-1.4"), 0);
  ASSERT_GE(pdf.size(), 6u);
  EXPECT_EQ(pdf.substr(pdf.size() - 6), "%%EOF\n");
  size_t at = pdf.rfind("startxref\n");
  ASSERT_NE(at, std::string::npos);
  size_t xref = std::strtoul(pdf.c_str() + at + 10, nullptr, 10);
  ASSERT_EQ(pdf.compare(xref, 5, "xref\n"), 0);
  size_t entry = pdf.find('\n', xref + 5) + 1 + 20;  // past "0 N" and the free entry
  for (int obj = 1; obj <= 5; ++obj, entry += 20) {
    ASSERT_EQ(pdf.compare(entry + 10, 10, " 00000 n \n"), 0) << obj;
    size_t off = std::strtoul(pdf.substr(entry, 10).c_str(), nullptr, 10);
    std::string start = std::to_string(obj) + " 0 obj\n";
    EXPECT_EQ(pdf.compare(off, start.size(), start), 0) << obj;
  }
  size_t len_at = pdf.find("/Length ");
  size_t stream = pdf.find("stream\n", len_at) + 7;
  size_t len = std::strtoul(pdf.c_str() + len_at + 8, nullptr, 10);
  EXPECT_EQ(pdf.compare(stream + len, 9, "endstream"), 0);
}

TEST_F(FilesTest, WrapperDocumentsAreWellFormedPdfsThatShowTheirUpdate) {
  Json::Value w(Json::objectValue);
  w["updateTime"] = "2027-03-04 05:06:07";
  ASSERT_TRUE(emu_->Seed("wrappers", w));
  for (const char* name : {"ProtectWrapper.pdf", "ReqPermWrapper_LicenseCode.pdf", "(odd)\\.pdf"}) {
    FileReply r = Get(std::string("/files/wrappers/") + name);
    ASSERT_EQ(r.status, 200) << name;
    EXPECT_TRUE(HeadHas(r.head, "Content-Type: application/pdf"));
    ExpectWellFormedPdf(r.body);
    EXPECT_NE(r.body.find("2027-03-04 05:06:07"), std::string::npos);
  }
  EXPECT_NE(Get("/files/wrappers/(odd)\\.pdf").body.find("(\\(odd\\)\\\\.pdf)"),
            std::string::npos);
}

struct FileCase {
  const char* name;
  const char* method;
  const char* target;
  int status;
  const char* header;  // a header line the reply must have ("" for none; "{base}": the emulator)
  size_t size;         // the body's length (kAny: not looked at)
  bool pattern;        // the body is the byte pattern
};

constexpr size_t kAny = std::string::npos;

class FilePath : public FilesTest, public ::testing::WithParamInterface<FileCase> {};

TEST_P(FilePath, ServesWhatThePathAsks) {
  const FileCase& c = GetParam();
  FileReply r = Get(c.target, c.method);
  EXPECT_EQ(r.status, c.status) << r.head;
  std::string header = c.header;
  if (header.find("{base}") != std::string::npos)
    header.replace(header.find("{base}"), 6, emu_->base_url());
  if (!header.empty()) {
    EXPECT_TRUE(HeadHas(r.head, header)) << r.head;
  }
  if (c.size != kAny) {
    EXPECT_EQ(r.body.size(), c.size);
  }
  if (c.pattern) {
    size_t bad = 0;
    while (bad < r.body.size() && static_cast<unsigned char>(r.body[bad]) == bad % 251) ++bad;
    EXPECT_EQ(bad, r.body.size()) << "first wrong byte";
  }
}

INSTANTIATE_TEST_SUITE_P(
    Files, FilePath,
    ::testing::Values(
        FileCase{"Bytes", "GET", "/files/bytes/40000", 200,
                 "Content-Type: application/octet-stream", 40000, true},
        FileCase{"EmptyFile", "GET", "/files/bytes/0", 200, "Content-Length: 0", 0, true},
        FileCase{"Created", "GET", "/files/status/201/bytes/5", 201, "", 5, true},
        FileCase{"Redirect", "GET", "/files/redirect/redirect/bytes/5", 302,
                 "Location: {base}/files/redirect/bytes/5", kAny, false},
        FileCase{"ChunkedHasNoLength", "GET", "/files/chunked/bytes/3000", 200,
                 "Transfer-Encoding: chunked", 3000, true},
        FileCase{"Unknown", "GET", "/files/nothing", 404, "Content-Type: text/plain", kAny, false},
        FileCase{"TooLarge", "GET", "/files/bytes/67108865", 404, "", kAny, false},
        FileCase{"Posted", "POST", "/files/bytes/5", 405, "", kAny, false}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(FilesTest, ASlowFileArrivesWholeAfterItsPauses) {
  const auto start = std::chrono::steady_clock::now();
  FileReply r = Get("/files/slow/40/chunked/bytes/20000");
  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(r.status, 200);
  EXPECT_EQ(r.body, Get("/files/bytes/20000").body);
  // Eight pieces, seven pauses of 40 ms between them (each may end a
  // millisecond early: the wait is counted in whole milliseconds).
  EXPECT_GE(took, std::chrono::milliseconds(7 * 39));
}

}  // namespace
