#include "os/debug_output.h"

#include <windows.h>

#include <string>

namespace tpcsdk::os {

void DebugOutput(std::u16string_view text) noexcept {
  try {
    const std::wstring wide(text.begin(), text.end());
    OutputDebugStringW(wide.c_str());
  } catch (...) {
    // Out of memory: the text is lost, as debug output may be.
  }
}

}  // namespace tpcsdk::os
