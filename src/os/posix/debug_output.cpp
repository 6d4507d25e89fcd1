#include "os/debug_output.h"

namespace tpcsdk::os {

// No debugger channel on Linux; the text goes nowhere.
void DebugOutput(std::u16string_view) noexcept {}

}  // namespace tpcsdk::os
