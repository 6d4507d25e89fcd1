#include "discovery_fixture.h"

#include <fstream>

#include "os/paths.h"
#include "platform/config_file.h"
#include "support/out_buffer.h"

namespace fs = std::filesystem;
using namespace tpcsdk;

namespace discovery {
namespace {

Found Take(int result, TDC_LPWSTR block) {
  Found found{result, std::nullopt};
  if (block) {
    found.host = WideArg(block);
    EXPECT_EQ(TDC_ReleaseLPWSTR(block), TDC_HRESULT_OK);
  }
  return found;
}

const std::u16string kVersion = u"12.1";

}  // namespace

long FakeDirectory::QueryTxt(const std::u16string& name, os::DnsTxtAnswer& answer) {
  if (on_query) on_query();
  std::lock_guard<std::mutex> hold(lock_);
  queries_.push_back(name);
  const auto it = records_.find(name);
  if (it == records_.end()) return 9003;
  answer = it->second;
  return 0;
}

void DiscoveryTest::SetUp() {
  appdata_env_.emplace(os::kAppDataOverrideVariable, appdata_.path().u8string());
  registry_.emplace(hives_.path());
  ASSERT_TRUE(registry_->ok()) << "no private registry: nothing is written";
  for (const char* product : {"Tarvo PDF Reader", "Tarvo PDF Editor"})
    fs::create_directories(appdata_.path() / "Tarvo Software" / product);
  os::SetIdentityProviderForTest(&directory_);
  os::SetDnsResolverForTest(&directory_);
  RemoveConfig();
}

void DiscoveryTest::TearDown() {
  platform_.reset();
  os::SetIdentityProviderForTest(nullptr);
  os::SetDnsResolverForTest(nullptr);
  RemoveConfig();
  registry_.reset();
}

void DiscoveryTest::WriteConfig(const std::string& bytes) { testkit::WriteFile(fs::path(ConfigFilePath()), bytes); }

void DiscoveryTest::RemoveConfig() {
  std::error_code ec;
  fs::remove(fs::path(ConfigFilePath()), ec);
  fs::remove(fs::path(LoggingMarkerPath()), ec);
}

void DiscoveryTest::WriteMarker() { testkit::WriteFile(fs::path(LoggingMarkerPath()), ""); }

IPDFPlatform* DiscoveryTest::NewPlatform() {
  platform_.reset();
  platform_ = std::make_unique<TDOCPlatform>();
  return platform_.get();
}

IPDFPlatform* DiscoveryTest::NewLoggingPlatform() {
  WriteConfig(R"({"logfile":"on"})");
  IPDFPlatform* p = NewPlatform();
  RemoveConfig();
  EXPECT_NE(Object()->Log(), nullptr);
  return p;
}

fs::path DiscoveryTest::LogFolder(const char* product) const {
  return appdata_.path() / "Tarvo Software" / product / "Log";
}

std::vector<std::string> DiscoveryTest::Log(const char* product) const {
  std::vector<std::string> messages;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(LogFolder(product), ec)) {
    std::ifstream in(entry.path(), std::ios::binary);
    std::string line;
    while (std::getline(in, line)) {
      if (!line.empty() && line.back() == '\r') line.pop_back();
      // The stamp ends with "][ThreadId:nnnnnn]".
      const size_t stamp = line.find("][ThreadId:");
      const size_t end = stamp == std::string::npos ? stamp : line.find(']', stamp + 1);
      messages.push_back(end == std::string::npos ? line : line.substr(end + 1));
    }
  }
  return messages;
}

bool DiscoveryTest::Logged(const std::string& message) const {
  const std::vector<std::string> log = Log();
  return std::find(log.begin(), log.end(), message) != log.end();
}

Found DiscoveryTest::Slot5() {
  TDC_LPWSTR out = nullptr;
  IPDFPlatform* p = platform_.get();
  const int rc = p->GetRecordHostFromConfig(&out);
  return Take(rc, out);
}

Found DiscoveryTest::Slot6() {
  TDC_LPWSTR out = nullptr;
  IPDFPlatform* p = platform_.get();
  const int rc = p->GetRecordUpdateHostFromConfig(&out);
  return Take(rc, out);
}

Found DiscoveryTest::Slot7(const std::u16string& app, const std::u16string& version) {
  TDC_LPWSTR out = nullptr;
  IPDFPlatform* p = platform_.get();
  const int rc = p->GetRecordHostFromGPO(&out, W(app), W(version), W(u""));
  return Take(rc, out);
}

Found DiscoveryTest::Slot8(const std::u16string& app) {
  TDC_LPWSTR out = nullptr;
  IPDFPlatform* p = platform_.get();
  const int rc = p->GetRecordUpdateHostFromGPO(&out, W(app), W(kVersion));
  return Take(rc, out);
}

Found DiscoveryTest::Slot9(const std::u16string& app, const std::u16string& user) {
  TDC_LPWSTR out = nullptr;
  IPDFPlatform* p = platform_.get();
  const int rc = p->GetRecordHostFromLastDefaultLogined(&out, W(app), W(kVersion), W(user));
  return Take(rc, out);
}

int DiscoveryTest::Slot10(const std::u16string& app) {
  IPDFPlatform* p = platform_.get();
  return p->IsEnterpriseEnv(W(app), W(kVersion), W(u""));
}

void DiscoveryTest::ClearRegistry() {
  for (os::RegRoot root : {os::RegRoot::kCurrentUser, os::RegRoot::kLocalMachine}) {
    os::DeleteRegTree(root, u"SOFTWARE\\Tarvo Software");
    os::DeleteRegTree(root, u"Software\\Policies\\Tarvo");
  }
  os::DeleteRegTree(os::RegRoot::kUsers, u"S-1-5-21-1004-1005-1006-1001\\SOFTWARE\\Tarvo Software");
}

void DiscoveryTest::SetValue(os::RegRoot root, const std::u16string& key, const std::u16string& name,
                             const std::u16string& value) {
  os::RegKey k = os::CreateRegKey(root, key);
  ASSERT_NE(k, nullptr);
  EXPECT_TRUE(os::SetRegString(k, name, value));
  os::CloseRegKey(k);
}

}  // namespace discovery
