#include "discovery_fixture.h"

#include <fstream>

#include "os/paths.h"
#include "platform/config_file.h"
#include "support/out_buffer.h"
#include "support/utf.h"

namespace fs = std::filesystem;
using namespace tpcsdk;

namespace discovery {

void FakeDirectory::Publish(const std::u16string& name, int type, std::vector<std::u16string> strings) {
  std::lock_guard<std::mutex> hold(lock_);
  os::DnsTxtAnswer answer;
  answer.first_type = type;
  answer.strings = std::move(strings);
  records_[name] = {0, answer};
}

void FakeDirectory::Fail(const std::u16string& name, long code) {
  std::lock_guard<std::mutex> hold(lock_);
  records_[name] = {code, os::DnsTxtAnswer{}};
}

std::vector<std::u16string> FakeDirectory::Queries() {
  std::lock_guard<std::mutex> hold(lock_);
  return queries_;
}

bool FakeDirectory::QueryJoinStatus(int& status) {
  status = join_status;
  return join_query_ok;
}

bool FakeDirectory::QueryUserPrincipalName(std::u16string& name, long& error) {
  if (!upn_ok) {
    error = upn_error;
    return false;
  }
  name = upn;
  return true;
}

bool FakeDirectory::QueryOsMajorVersion(std::uint32_t& major) {
  major = major_version;
  return version_ok;
}

os::CloudJoinInfo FakeDirectory::QueryCloudJoin() { return cloud; }

long FakeDirectory::QueryTxt(const std::u16string& name, os::DnsTxtAnswer& answer) {
  if (on_query) on_query();
  std::lock_guard<std::mutex> hold(lock_);
  queries_.push_back(name);
  const auto it = records_.find(name);
  if (it == records_.end()) return kNameError;
  if (it->second.first == 0) answer = it->second.second;
  return it->second.first;
}

std::string FakeDirectory::DescribeError(long code) {
  return code == kNameError ? "DNS name does not exist" : std::string();
}

void DiscoveryTest::SetUp() {
  appdata_env_.emplace(os::kAppDataOverrideVariable, appdata_.path().u8string());
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
  if (!fs::is_directory(LogFolder(product), ec)) return messages;
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
  for (const std::string& m : Log())
    if (m == message) return true;
  return false;
}

Found DiscoveryTest::Take(int result, TDC_LPWSTR block) {
  Found found{result, std::nullopt};
  if (block) {
    found.host = WideArg(block);
    EXPECT_EQ(TDC_ReleaseLPWSTR(block), TDC_HRESULT_OK);
  }
  return found;
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

}  // namespace discovery
