// Who the user is in the directory: whether the machine is joined to a domain, the
// user's principal name, whether the device is joined to a cloud directory and with
// which e-mail, and the system's major version (cloud join needs 10 or later). The
// system answers by default; tests install their own provider.
#pragma once
#include <cstdint>
#include <string>

namespace tpcsdk::os {

// Join states as the system's join query numbers them; 3 means joined to a domain.
inline constexpr int kJoinStatusUnknown = 0;
inline constexpr int kJoinStatusUnjoined = 1;
inline constexpr int kJoinStatusWorkgroup = 2;
inline constexpr int kJoinStatusDomain = 3;

// The outcome of the cloud-join query.
struct CloudJoinInfo {
  long result = 0;          // the query's status; 0 is success
  bool has_record = false;  // the query handed back a join record
  int join_type = 0;        // from the record: 0 not joined, otherwise joined
  bool has_email = false;   // the record names the user who joined
  std::u16string email;
};

class DirectoryIdentity {
 public:
  virtual ~DirectoryIdentity() = default;
  // The machine's domain-join state (kJoinStatus*); false when the query failed.
  virtual bool QueryJoinStatus(int& status) = 0;
  // The signed-in user's principal name (user@domain). False with the system's error
  // code when it cannot be had.
  virtual bool QueryUserPrincipalName(std::u16string& name, long& error) = 0;
  // The system's major version; false when it cannot be found out.
  virtual bool QueryOsMajorVersion(std::uint32_t& major) = 0;
  // Whether the device is joined to a cloud directory, for no particular tenant.
  virtual CloudJoinInfo QueryCloudJoin() = 0;
  // The system's wording of a status code, on one line; empty when it has none.
  virtual std::string DescribeError(long code) = 0;
};

// The provider in use: the system's, unless a test installed another.
DirectoryIdentity& Identity();

// Test use only: installs a provider in place of the system's; null restores the
// system's. Not to be called while a look-up runs.
void SetIdentityProviderForTest(DirectoryIdentity* provider);

}  // namespace tpcsdk::os
