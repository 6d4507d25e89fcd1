#include "os/user_agent.h"

#include <windows.h>
#include <urlmon.h>

#include <string>

#include "support/utf.h"

namespace tpcsdk::os {

std::u16string SystemUserAgent() {
  // Both calls fill a narrow buffer; 4,096 bytes is ample for any agent text.
  char buffer[4096] = {};
  DWORD length = 0;
  UrlMkGetSessionOption(URLMON_OPTION_USERAGENT, buffer, sizeof(buffer) - 1, &length, 0);
  if (buffer[0] == 0) {
    DWORD size = sizeof(buffer) - 1;
    if (FAILED(ObtainUserAgentString(0, buffer, &size))) buffer[0] = 0;
  }
  buffer[sizeof(buffer) - 1] = 0;
  return Utf8ToUtf16(buffer);
}

}  // namespace tpcsdk::os
