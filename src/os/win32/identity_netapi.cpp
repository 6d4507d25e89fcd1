// Windows backend of the directory-identity seam: NetGetJoinInformation and
// GetUserNameExW for the domain, NetGetAadJoinInformation for the cloud directory
// (looked up at run time: older systems lack it), RtlGetVersion for the version.
#include <windows.h>
#define SECURITY_WIN32
#include <lm.h>
#include <secext.h>

#include <atomic>
#include <mutex>

#include "os/identity.h"
#include "os/win32/format_message.h"
#include "support/utf.h"

namespace tpcsdk::os {
namespace win32 {

std::string FormatSystemMessage(unsigned long code) {
  wchar_t* text = nullptr;
  const DWORD n = FormatMessageW(
      FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
      nullptr, code, 0, reinterpret_cast<LPWSTR>(&text), 0, nullptr);
  if (n == 0 || !text) {
    if (text) LocalFree(text);
    return std::string();
  }
  std::u16string words(reinterpret_cast<const char16_t*>(text), n);
  LocalFree(text);
  while (!words.empty() && (words.back() == u'\r' || words.back() == u'\n' || words.back() == u' '))
    words.pop_back();
  return Utf16ToUtf8(words);
}

}  // namespace win32

namespace {

// The cloud-join record, as the system lays it out (lmjoin.h of newer SDKs).
struct DsregUserInfo {
  LPWSTR pszUserEmail;
  LPWSTR pszUserKeyId;
  LPWSTR pszUserKeyName;
};
struct DsregJoinInfo {
  int joinType;
  const void* pJoinCertificate;
  LPWSTR pszDeviceId;
  LPWSTR pszIdpDomain;
  LPWSTR pszTenantId;
  LPWSTR pszJoinUserEmail;
  LPWSTR pszTenantDisplayName;
  LPWSTR pszMdmEnrollmentUrl;
  LPWSTR pszMdmTermsOfUseUrl;
  LPWSTR pszMdmComplianceUrl;
  LPWSTR pszUserSettingSyncUrl;
  DsregUserInfo* pUserInfo;
};
using GetAadJoinFn = HRESULT(WINAPI*)(LPCWSTR, DsregJoinInfo**);
using FreeAadJoinFn = VOID(WINAPI*)(DsregJoinInfo*);
using RtlGetVersionFn = LONG(WINAPI*)(OSVERSIONINFOW*);

constexpr HRESULT kNotImplemented = static_cast<HRESULT>(0x80004001L);
constexpr DWORD kUserNameCapacity = 260;

template <class Fn>
Fn Lookup(const wchar_t* module, const char* name) {
  HMODULE handle = GetModuleHandleW(module);
  if (!handle) handle = LoadLibraryW(module);
  if (!handle) return nullptr;
  return reinterpret_cast<Fn>(reinterpret_cast<void*>(GetProcAddress(handle, name)));
}

class SystemIdentity final : public DirectoryIdentity {
 public:
  bool QueryJoinStatus(int& status) override {
    LPWSTR name = nullptr;
    NETSETUP_JOIN_STATUS join = NetSetupUnknownStatus;
    if (NetGetJoinInformation(nullptr, &name, &join) != NERR_Success) return false;
    if (name) NetApiBufferFree(name);
    status = static_cast<int>(join);
    return true;
  }

  bool QueryUserPrincipalName(std::u16string& name, long& error) override {
    wchar_t buffer[kUserNameCapacity] = {};
    ULONG size = kUserNameCapacity;
    if (!GetUserNameExW(NameUserPrincipal, buffer, &size)) {
      error = static_cast<long>(GetLastError());
      return false;
    }
    name.assign(reinterpret_cast<const char16_t*>(buffer), size < kUserNameCapacity ? size : 0);
    return true;
  }

  bool QueryOsMajorVersion(std::uint32_t& major) override {
    // The entry point is looked up once per process.
    static const RtlGetVersionFn get_version = Lookup<RtlGetVersionFn>(L"ntdll.dll", "RtlGetVersion");
    if (!get_version) return false;
    OSVERSIONINFOW info{};
    info.dwOSVersionInfoSize = sizeof info;
    if (get_version(&info) != 0) return false;
    major = info.dwMajorVersion;
    return true;
  }

  CloudJoinInfo QueryCloudJoin() override {
    CloudJoinInfo out;
    static const GetAadJoinFn get_join = Lookup<GetAadJoinFn>(L"netapi32.dll", "NetGetAadJoinInformation");
    static const FreeAadJoinFn free_join = Lookup<FreeAadJoinFn>(L"netapi32.dll", "NetFreeAadJoinInformation");
    if (!get_join) {
      out.result = kNotImplemented;
      return out;
    }
    DsregJoinInfo* info = nullptr;
    out.result = get_join(nullptr, &info);
    if (info) {
      out.has_record = true;
      out.join_type = info->joinType;
      if (info->pszJoinUserEmail) {
        out.has_email = true;
        out.email = reinterpret_cast<const char16_t*>(info->pszJoinUserEmail);
      }
      if (free_join) free_join(info);
    }
    return out;
  }

  std::string DescribeError(long code) override {
    return win32::FormatSystemMessage(static_cast<unsigned long>(code));
  }
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
