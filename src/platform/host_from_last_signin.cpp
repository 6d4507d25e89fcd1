// The record of signed-in services as a source of hosts: slot 9.
#include "platform/diagnostic_log.h"
#include "platform/host_discovery.h"
#include "platform/platform.h"
#include "platform/registry_locations.h"
#include "support/guard.h"
#include "support/out_buffer.h"
#include "support/text.h"
#include "support/utf.h"

namespace tpcsdk {
namespace {

std::string U8(const std::u16string& s) { return Utf16ToUtf8(s); }

}  // namespace

// Slot 9: the service the user last signed in to by default. Each value of the
// LoginedService key is named by a host; the first whose text is "1" is the one.
int TDOCPlatform::GetRecordHostFromLastDefaultLogined(TDC_LPWSTR* host, TDC_LPCWSTR app, TDC_LPCWSTR version,
                                                      TDC_LPCWSTR user) {
  if (!user) return TDC_HRESULT_FAILED;
  return Guarded(TDC_HRESULT_FAILED, [&] {
    return RecordHostFromLastDefaultLogined(host, WideArg(app), WideArg(version), WideArg(user));
  });
}

int TDOCPlatform::RecordHostFromLastDefaultLogined(TDC_LPWSTR* out, const std::u16string& app,
                                                   const std::u16string& version, const std::u16string& user) {
  // An empty user is the current one; otherwise the user's security identifier
  // leads the path in the hive of all users.
  const os::RegRoot root = user.empty() ? os::RegRoot::kCurrentUser : os::RegRoot::kUsers;
  os::RegKey key = os::OpenRegKey(root, reg::SignedInServicesKey(user, app, version));
  if (!key) return TDC_HRESULT_FAILED;
  struct Closer {
    os::RegKey key;
    ~Closer() { os::CloseRegKey(key); }
  } closer{key};

  constexpr std::uint32_t kNameChars = 512;
  std::u16string name;
  std::uint32_t count = 0;
  while (os::EnumRegValue(key, count, name, kNameChars, nullptr, nullptr, nullptr) == os::RegStatus::kOk) ++count;
  for (std::uint32_t i = 0; i < count; ++i) {
    name.clear();
    if (os::EnumRegValue(key, i, name, kNameChars, nullptr, nullptr, nullptr) != os::RegStatus::kOk ||
        name.empty())
      continue;
    std::u16string text;
    if (!os::QueryRegString(key, name, text) || !EqualsNoCase(text, u"1")) continue;
    if (!HandOut(out, name)) return TDC_HRESULT_FAILED;
    if (m_pLog) m_pLog->Write("GetRecordHostFromLastDefaultLogined: Host = %s", U8(name).c_str());
    return TDC_HRESULT_OK;
  }
  return TDC_HRESULT_FAILED;
}

}  // namespace tpcsdk
