// POSIX backend of the directory-identity seam. A machine that belongs to a Kerberos
// realm gives its signed-in user a default credential cache; the principal of that
// cache (user@REALM) stands for the user's principal name, and having one counts as
// being joined to the directory. Without one the machine is not joined. There is no
// cloud directory join and no system version that offers one.
#include <krb5.h>

#include <atomic>

#include "os/identity.h"
#include "support/utf.h"

namespace tpcsdk::os {
namespace {

constexpr long kNotImplemented = static_cast<long>(0x80004001L);

// The default principal's name, or the Kerberos error code that kept it away.
krb5_error_code DefaultPrincipalName(std::string& name) {
  krb5_context context = nullptr;
  krb5_error_code rc = krb5_init_context(&context);
  if (rc != 0) return rc;
  krb5_ccache cache = nullptr;
  krb5_principal principal = nullptr;
  rc = krb5_cc_default(context, &cache);
  if (rc == 0) rc = krb5_cc_get_principal(context, cache, &principal);
  if (rc == 0) {
    char* text = nullptr;
    rc = krb5_unparse_name(context, principal, &text);
    if (rc == 0) {
      name = text;
      krb5_free_unparsed_name(context, text);
    }
  }
  if (principal) krb5_free_principal(context, principal);
  if (cache) krb5_cc_close(context, cache);
  krb5_free_context(context);
  return rc;
}

class SystemIdentity final : public DirectoryIdentity {
 public:
  bool QueryJoinStatus(int& status) override {
    std::string name;
    status = DefaultPrincipalName(name) == 0 && !name.empty() ? kJoinStatusDomain : kJoinStatusUnjoined;
    return true;
  }

  bool QueryUserPrincipalName(std::u16string& name, long& error) override {
    std::string text;
    const krb5_error_code rc = DefaultPrincipalName(text);
    if (rc != 0) {
      error = static_cast<long>(rc);
      return false;
    }
    name = Utf8ToUtf16(text);
    return true;
  }

  bool QueryOsMajorVersion(std::uint32_t&) override { return false; }

  CloudJoinInfo QueryCloudJoin() override {
    CloudJoinInfo out;
    out.result = kNotImplemented;
    return out;
  }

  std::string DescribeError(long) override { return std::string(); }
};

std::atomic<DirectoryIdentity*> g_test_identity{nullptr};

}  // namespace

DirectoryIdentity& Identity() {
  static SystemIdentity system;
  DirectoryIdentity* installed = g_test_identity.load();
  return installed ? *installed : system;
}

void SetIdentityProviderForTest(DirectoryIdentity* provider) { g_test_identity.store(provider); }

}  // namespace tpcsdk::os
