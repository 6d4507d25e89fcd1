// What the discovery tests share: a fake directory (identity and DNS) installed in
// the OS seam, the configuration file and marker beside the module, a private
// application-data folder for the log, and fresh platform objects.
#pragma once
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "kit/testkit.h"
#include "os/dns.h"
#include "os/identity.h"
#include "platform/platform.h"

namespace discovery {

// A directory the test scripts: the join state, the user's names, and DNS records.
// A name without a record answers "name error" (9003).
class FakeDirectory : public tpcsdk::os::DirectoryIdentity, public tpcsdk::os::DnsResolver {
 public:
  static constexpr long kNameError = 9003;

  bool join_query_ok = true;
  int join_status = tpcsdk::os::kJoinStatusWorkgroup;
  bool upn_ok = true;
  std::u16string upn;
  long upn_error = 0;
  bool version_ok = true;
  std::uint32_t major_version = 10;
  tpcsdk::os::CloudJoinInfo cloud;
  // Runs at every DNS query, before it is answered (outside the fake's lock).
  std::function<void()> on_query;

  void JoinDomain(const std::u16string& user) {
    join_status = tpcsdk::os::kJoinStatusDomain;
    upn = user;
  }
  void Publish(const std::u16string& name, int type, std::vector<std::u16string> strings);
  void Fail(const std::u16string& name, long code);
  std::vector<std::u16string> Queries();

  bool QueryJoinStatus(int& status) override;
  bool QueryUserPrincipalName(std::u16string& name, long& error) override;
  bool QueryOsMajorVersion(std::uint32_t& major) override;
  tpcsdk::os::CloudJoinInfo QueryCloudJoin() override;
  long QueryTxt(const std::u16string& name, tpcsdk::os::DnsTxtAnswer& answer) override;
  std::string DescribeError(long code) override;

 private:
  std::mutex lock_;
  std::map<std::u16string, std::pair<long, tpcsdk::os::DnsTxtAnswer>> records_;
  std::vector<std::u16string> queries_;
};

// What a slot gave: its result and what reached its out argument.
struct Found {
  int result;
  std::optional<std::u16string> host;
  bool operator==(const Found& o) const { return result == o.result && host == o.host; }
};

// The Found of a result and a host, where an empty host stands for none.
inline Found Expected(int result, const std::u16string& host) {
  return Found{result, host.empty() ? std::nullopt : std::optional<std::u16string>(host)};
}

class DiscoveryTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // The configuration file beside the module: written with these bytes, or removed.
  void WriteConfig(const std::string& bytes);
  void RemoveConfig();
  void WriteMarker();

  // A new platform object; its constructor reads the configuration as it stands.
  IPDFPlatform* NewPlatform();
  // Same with logging switched on by a configuration that is removed afterwards.
  IPDFPlatform* NewLoggingPlatform();
  tpcsdk::TDOCPlatform* Object() { return platform_.get(); }

  // The messages of today's log of the given product folder, without their stamps.
  std::vector<std::string> Log(const char* product = "Tarvo PDF Reader") const;
  bool Logged(const std::string& message) const;
  std::filesystem::path LogFolder(const char* product = "Tarvo PDF Reader") const;

  // Slot 5 or 6 through the interface: the result and what reached the out argument.
  static Found Take(int result, TDC_LPWSTR block);
  Found Slot5();
  Found Slot6();

  FakeDirectory directory_;
  testkit::TempDir appdata_;
  std::optional<testkit::ScopedEnv> appdata_env_;

 private:
  std::unique_ptr<tpcsdk::TDOCPlatform> platform_;
};

inline TDC_LPCWSTR W(const std::u16string& s) { return reinterpret_cast<TDC_LPCWSTR>(s.c_str()); }

}  // namespace discovery
