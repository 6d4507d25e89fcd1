#include "platform/directory_lookup.h"

#include "os/dns.h"
#include "os/identity.h"
#include "os/registry.h"
#include "platform/diagnostic_log.h"
#include "platform/product_identity.h"
#include "platform/registry_locations.h"
#include "support/text.h"
#include "support/utf.h"

namespace tpcsdk {
namespace {

constexpr std::uint32_t kCloudJoinMajorVersion = 10;

std::string U8(const std::u16string& s) { return Utf16ToUtf8(s); }

// The part of the user name after its first "@", or the whole name without one.
std::u16string DomainOf(const std::u16string& user_name) {
  const size_t at = user_name.find(u'@');
  return at == std::u16string::npos ? user_name : user_name.substr(at + 1);
}

// The words of each look-up's log lines; the two look-ups word them differently.
struct LookupWords {
  const char* record_name;
  const char* query_failed;
  const char* error_message;
  const char* record_type;
  const char* string_count;
};

constexpr LookupWords kServiceWords = {
    "The DNS TXT new name is = %s.", "new DNS DnsQuery_W failed. Error code = %d.",
    "The new DNS DnsQuery_W error message = %s.", "The new DNS type is = %d.",
    "The new DNS TXT string count is = %d."};
constexpr LookupWords kUpdateWords = {
    "The DNS TXT name is = %s.", "DnsQuery_W failed. Error code = %d.",
    "The DnsQuery_W error message = %s.", "The DNS type is = %d.", "The DNS TXT string count is = %d."};

// Asks DNS for the record and keeps its first string when it looks like a host. The
// service look-up tests the text only when the first record is TXT; the update
// look-up tests it whatever the record was.
void QueryRecord(DiagnosticLog* log, const std::u16string& record_name, const LookupWords& words,
                 bool test_any_record, std::u16string& host) {
  if (log) log->Write(words.record_name, U8(record_name).c_str());
  os::DnsResolver& dns = os::Dns();
  os::DnsTxtAnswer answer;
  const long rc = dns.QueryTxt(record_name, answer);
  if (rc != 0) {
    if (log) {
      log->Write(words.query_failed, static_cast<int>(rc));
      const std::string message = dns.DescribeError(rc);
      if (!message.empty()) log->Write(words.error_message, message.c_str());
    }
    return;
  }
  if (log) log->Write(words.record_type, answer.first_type);
  const bool is_text = answer.first_type == os::kDnsTypeText;
  if (is_text) {
    if (log) log->Write(words.string_count, static_cast<int>(answer.strings.size()));
    if (!answer.strings.empty()) {
      host = answer.strings.front();
      if (log) log->Write("The first DNS TXT string is = %s", U8(host).c_str());
    }
  }
  if ((is_text || test_any_record) && !IsValidHostString(host)) {
    host.clear();
    if (log) log->Write("The DNS TXT string is Invalid");
  }
}

}  // namespace

int GetADUserName(DiagnosticLog* log, std::u16string& name) {
  os::DirectoryIdentity& identity = os::Identity();
  int status = os::kJoinStatusUnknown;
  if (!identity.QueryJoinStatus(status)) return 0;
  if (status != os::kJoinStatusDomain) {
    if (log) log->Write("The current user is not joined to AD. Type:%d.", status);
    return 0;
  }
  if (log) log->Write("The current user is joined to AD.");
  std::u16string principal;
  long error = 0;
  if (identity.QueryUserPrincipalName(principal, error)) {
    name = principal;
    if (log) log->Write("The domain user name is = %s.", U8(name).c_str());
  } else if (log) {
    log->Write("GetUserNameEx failed. Error code = %d.", static_cast<int>(error));
  }
  return 1;
}

int GetAADUserName(DiagnosticLog* log, std::u16string& name) {
  os::DirectoryIdentity& identity = os::Identity();
  std::uint32_t major = 0;
  if (!identity.QueryOsMajorVersion(major) || major < kCloudJoinMajorVersion) {
    if (log) log->Write("The current user is not joined to AAD because it is not win10 or greater.");
    return 0;
  }
  const os::CloudJoinInfo join = identity.QueryCloudJoin();
  if (join.result >= 0 && join.has_record) {
    if (log) log->Write("NetGetAadJoinInformation Join Type = %d.", join.join_type);
    if (join.join_type != 0) {
      if (join.has_email) name = join.email;
      if (log) {
        log->Write("The current user is joined to AAD.");
        log->Write("The user email joined to AAD is: %s.", U8(name).c_str());
      }
      return 1;
    }
  }
  if (log) {
    log->Write("The current user is not joined to AAD. hr = %d.", static_cast<int>(join.result));
    log->Write("pJoinInfo is NULL:%d.", join.has_record ? 0 : 1);
    const std::string message = identity.DescribeError(join.result);
    if (!message.empty()) log->Write("The hr message = %s.", message.c_str());
  }
  return 0;
}

bool DirectoryUserName(DiagnosticLog* log, std::u16string& name) {
  int joined = GetADUserName(log, name);
  if (joined == 0 || name.empty()) joined = GetAADUserName(log, name);
  if (joined == 0 || name.empty()) {
    if (log) log->Write("The current user is not joined to AD or AAD.");
    return false;
  }
  if (log) log->Write("The domain user name is = %s.", U8(name).c_str());
  return true;
}

std::u16string ServiceRecordName(const std::u16string& user_name, const std::u16string& domain_suffix) {
  std::u16string dashed = user_name;
  std::u16string dotted;
  const size_t at = user_name.find(u'@');
  if (at != std::u16string::npos) {
    dotted = user_name.substr(at + 1);
    dashed = dotted;
    for (char16_t& c : dashed)
      if (c == u'.') c = u'-';
  }
  if (!domain_suffix.empty()) dotted = domain_suffix;
  return u"tws-" + dashed + u"." + dotted;
}

std::u16string UpdateRecordName(const std::u16string& user_name) {
  return u"tws-internal-update." + DomainOf(user_name);
}

std::u16string LookupHostFromDns(DiagnosticLog* log, const std::u16string& domain_suffix,
                                 DnsHostRecord memo) {
  if (memo.done) {
    if (log) log->Write("Return the existing host from DNS. It may be empty.");
    return memo.host;
  }
  std::u16string user_name;
  if (DirectoryUserName(log, user_name))
    QueryRecord(log, ServiceRecordName(user_name, domain_suffix), kServiceWords, false, memo.host);
  memo.done = true;
  return memo.host;
}

std::u16string LookupUpdateHostFromDns(DiagnosticLog* log, DnsHostRecord memo) {
  if (memo.done) {
    if (log) log->Write("Return the existing host from DNS. It may be empty.");
    return memo.host;
  }
  std::u16string user_name;
  if (DirectoryUserName(log, user_name))
    QueryRecord(log, UpdateRecordName(user_name), kUpdateWords, true, memo.host);
  memo.done = true;
  return memo.host;
}

int IsFindHostDisabled(const std::u16string& application, const std::u16string& version) {
  const ProductKind kind =
      application.find(u"BrindlePDF") != std::u16string::npos ? ProductKind::Editor : ProductKind::Reader;
  const std::u16string path = reg::ProductVersionKey(kind, version) + reg::kFindHostKey;
  os::RegKey key = os::OpenRegKey(os::RegRoot::kCurrentUser, path);
  if (!key) return 0;
  std::u16string value;
  const bool read = os::QueryRegString(key, reg::kDisableFindHostValue, value);
  os::CloseRegKey(key);
  return read && EqualsNoCase(value, u"True") ? 1 : 0;
}

}  // namespace tpcsdk
