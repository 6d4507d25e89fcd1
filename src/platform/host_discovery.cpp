#include "platform/host_discovery.h"

#include "support/out_buffer.h"
#include "support/utf.h"

namespace tpcsdk {

std::u16string DefaultServiceHost() { return Utf8ToUtf16(TPCSDK_DEFAULT_SERVICE_HOST); }
std::u16string RegionalConfigHost() { return Utf8ToUtf16(TPCSDK_REGIONAL_CONFIG_HOST); }

bool HandOut(TDC_LPWSTR* out, const std::u16string& host) {
  if (!out) return false;
  TDC_LPWSTR block = NewWideBlock(host);
  if (!block) return false;
  *out = block;
  return true;
}

bool ReadRegistryString(os::RegRoot root, const std::u16string& path, const char16_t* name, std::u16string& out) {
  os::RegKey key = os::OpenRegKey(root, path);
  if (!key) return false;
  const bool read = os::QueryRegString(key, name, out);
  os::CloseRegKey(key);
  return read;
}

bool Holds(const std::u16string& application, const char16_t* word) {
  return application.find(word) != std::u16string::npos;
}

}  // namespace tpcsdk
