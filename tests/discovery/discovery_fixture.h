// What the discovery tests share: a fake directory (identity and DNS) installed in
// the OS seam, the configuration file and marker beside the module, private
// application-data and registry folders, and fresh platform objects.
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

#include "kit/private_registry.h"
#include "kit/testkit.h"
#include "os/dns.h"
#include "os/identity.h"
#include "os/registry.h"
#include "platform/platform.h"
#include "support/utf.h"

namespace discovery {

inline const std::u16string kDefaultHost = tpcsdk::Utf8ToUtf16(TPCSDK_DEFAULT_SERVICE_HOST);

// A directory the test scripts: the join state, the user's names and DNS records.
// A name without a record answers "name error" (9003).
class FakeDirectory : public tpcsdk::os::DirectoryIdentity, public tpcsdk::os::DnsResolver {
 public:
  bool join_query_ok = true;
  int join_status = tpcsdk::os::kJoinStatusWorkgroup;
  bool upn_ok = true;
  std::u16string upn;
  long upn_error = 0;
  bool version_ok = true;
  std::uint32_t major_version = 10;
  tpcsdk::os::CloudJoinInfo cloud;
  std::function<void()> on_query;  // runs as each DNS query comes in

  void JoinDomain(const std::u16string& user) {
    join_status = tpcsdk::os::kJoinStatusDomain;
    upn = user;
  }
  void Publish(const std::u16string& name, int type, std::vector<std::u16string> strings) {
    std::lock_guard<std::mutex> hold(lock_);
    records_[name] = {type, std::move(strings)};
  }
  std::vector<std::u16string> Queries() {
    std::lock_guard<std::mutex> hold(lock_);
    return queries_;
  }

  bool QueryJoinStatus(int& status) override {
    status = join_status;
    return join_query_ok;
  }
  bool QueryUserPrincipalName(std::u16string& name, long& error) override {
    if (upn_ok) name = upn;
    else error = upn_error;
    return upn_ok;
  }
  bool QueryOsMajorVersion(std::uint32_t& major) override {
    major = major_version;
    return version_ok;
  }
  tpcsdk::os::CloudJoinInfo QueryCloudJoin() override { return cloud; }
  long QueryTxt(const std::u16string& name, tpcsdk::os::DnsTxtAnswer& answer) override;
  std::string DescribeError(long code) override { return code == 9003 ? "DNS name does not exist" : ""; }

 private:
  std::mutex lock_;
  std::map<std::u16string, tpcsdk::os::DnsTxtAnswer> records_;
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

inline TDC_LPCWSTR W(const std::u16string& s) { return reinterpret_cast<TDC_LPCWSTR>(s.c_str()); }

class DiscoveryTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // The configuration file beside the module: written with these bytes, or removed
  // together with the marker.
  void WriteConfig(const std::string& bytes);
  void RemoveConfig();
  void WriteMarker();

  // A new platform object; its constructor reads the configuration as it stands.
  IPDFPlatform* NewPlatform();
  // Same with logging switched on by a configuration that is removed afterwards.
  IPDFPlatform* NewLoggingPlatform();
  tpcsdk::TDOCPlatform* Object() { return platform_.get(); }

  // The messages of today's log of a product folder, without their stamps.
  std::vector<std::string> Log(const char* product = "Tarvo PDF Reader") const;
  bool Logged(const std::string& message) const;
  std::filesystem::path LogFolder(const char* product = "Tarvo PDF Reader") const;

  // The slots through the host's interface (app "Tarvo Reader", version 12.1 unless given).
  Found Slot5();
  Found Slot6();
  Found Slot7(const std::u16string& app, const std::u16string& version = u"12.1");
  Found Slot8(const std::u16string& app);
  Found Slot9(const std::u16string& app, const std::u16string& user);
  int Slot10(const std::u16string& app);

  // Registry values, in a registry of the test's own that starts empty.
  static void ClearRegistry();
  static void SetValue(tpcsdk::os::RegRoot root, const std::u16string& key, const std::u16string& name,
                       const std::u16string& value);

  FakeDirectory directory_;
  testkit::TempDir appdata_;
  testkit::TempDir hives_;
  std::optional<testkit::ScopedEnv> appdata_env_;
  std::optional<testkit::PrivateRegistry> registry_;

 private:
  std::unique_ptr<tpcsdk::TDOCPlatform> platform_;
};

}  // namespace discovery
