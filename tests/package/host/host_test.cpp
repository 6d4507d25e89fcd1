// What a host application does first with the module it links: get the platform,
// create a client for a service host and read back what the client knows. Built
// from the installed headers and module alone, and run against the service
// emulator: one started here on Linux, the one named by TDOC_EMULATOR_URL on Windows.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "tpcsdk/IPDFPlatform.h"
#include "tpcsdk/ITetherdocServer.h"

#ifndef _WIN32
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

namespace {

std::basic_string<TDC_WCHAR> Wide(const std::string& ascii) {
  return std::basic_string<TDC_WCHAR>(ascii.begin(), ascii.end());
}

void SetVariable(const char* name, const std::string& value) {
#ifdef _WIN32
  _putenv_s(name, value.c_str());
#else
  setenv(name, value.c_str(), 1);
#endif
}

// The emulator for this program: its base URL, and on Linux the process to end.
class Emulator {
 public:
  Emulator() {
    if (const char* url = std::getenv("TDOC_EMULATOR_URL"); url && *url) {
      url_ = url;
      return;
    }
#if defined(TDOC_EMULATOR) && !defined(_WIN32)
    int out[2];
    if (pipe(out) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      dup2(out[1], 1);
      close(out[0]);
      close(out[1]);
      execl(TDOC_EMULATOR, TDOC_EMULATOR, "--port", "0", "--print-url", static_cast<char*>(nullptr));
      _exit(127);
    }
    close(out[1]);
    // The first line is the URL; the read blocks until the emulator listens.
    char c;
    while (read(out[0], &c, 1) == 1 && c != '\n') url_ += c;
    close(out[0]);
#endif
  }
  ~Emulator() {
#ifndef _WIN32
    if (pid_ > 0) {
      kill(pid_, SIGTERM);
      waitpid(pid_, nullptr, 0);
    }
#endif
  }
  const std::string& url() const { return url_; }

 private:
  std::string url_;
#ifndef _WIN32
  pid_t pid_ = -1;
#endif
};

class InstalledModule : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    // The client's cache goes to a folder of this run, not the user's.
    const auto data = std::filesystem::temp_directory_path() / "tpcsdk-host-test";
    std::filesystem::remove_all(data);
    std::filesystem::create_directories(data);
    SetVariable("TPCSDK_APPDATA_DIR", data.string());
    emulator_ = new Emulator();
  }
  static void TearDownTestSuite() {
    delete emulator_;
    emulator_ = nullptr;
  }
  static Emulator* emulator_;
};
Emulator* InstalledModule::emulator_ = nullptr;

TEST_F(InstalledModule, CreatesAClientForTheEmulatorAndHandsOutItsTexts) {
  const std::string base = emulator_->url();
  ASSERT_EQ(base.rfind("http://", 0), 0u) << "no emulator: got \"" << base << "\"";
  const auto host = Wide(base);

  IPDFPlatform* platform = TDC_GetTDOCPlatform();
  ASSERT_NE(platform, nullptr);
  EXPECT_EQ(TDC_GetTDOCPlatform(), platform);
  EXPECT_EQ(platform->GetServerByHost(host.c_str()), nullptr);

  TDC_CLIENT_INFO info = {"en-US", "", "Package Host", "12.1"};
  TDC_LPWSTR domain = nullptr;
  ASSERT_EQ(platform->InitApi(host.c_str(), &info, &domain), TDC_HRESULT_OK);
  ASSERT_NE(domain, nullptr);
  EXPECT_EQ(std::basic_string<TDC_WCHAR>(domain), host);

  ITetherdocServer* client = platform->GetServerByHost(host.c_str());
  ASSERT_NE(client, nullptr);
  EXPECT_EQ(platform->GetServerByDomain(domain), client);
  EXPECT_EQ(TDC_ReleaseLPWSTR(domain), TDC_HRESULT_OK);

  TDC_LPWSTR text = nullptr;
  client->GetHost(&text);
  ASSERT_NE(text, nullptr);
  EXPECT_EQ(std::basic_string<TDC_WCHAR>(text), host);
  EXPECT_EQ(TDC_ReleaseLPWSTR(text), TDC_HRESULT_OK);

  TDC_LPWSTR url = nullptr;
  EXPECT_EQ(client->GetWebServiceUrl("no_such_key", &url), TDC_HRESULT_NO_URL);
  EXPECT_EQ(url, nullptr);

  // Calls over the wire: a reply with data handed out as JSON text, and a refusal
  // (the client holds no token of a known user) mapped to its own result.
  char* config = nullptr;
  ASSERT_EQ(client->GetServerOptionConfig(&config), TDC_HRESULT_OK);
  ASSERT_NE(config, nullptr);
  const std::string json(config);
  EXPECT_EQ(TDC_ReleaseLPSTR(config), TDC_HRESULT_OK);
  ASSERT_FALSE(json.empty());
  EXPECT_EQ(json.back(), '\n');
  int32_t online = 7;
  EXPECT_EQ(client->isUserOnLine("nobody@example.com", &online), TDC_HRESULT_RET_210007);
  EXPECT_EQ(online, 0);

  EXPECT_EQ(TDC_ReleaseLPSTR(nullptr), TDC_HRESULT_FAILED);
  TDC_ReleaseTDOCPlatform();
}

}  // namespace
