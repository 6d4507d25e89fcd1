// The system's debug output: text that a debugger attached to the host shows.
#pragma once
#include <string_view>

namespace tpcsdk::os {

// Windows: OutputDebugStringW. Linux has no such channel, so nothing is written.
void DebugOutput(std::u16string_view text) noexcept;

}  // namespace tpcsdk::os
