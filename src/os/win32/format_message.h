// The system's wording of a status code, shared by the Windows backends of the DNS
// and directory-identity seams.
#pragma once
#include <string>

namespace tpcsdk::os::win32 {

// FormatMessageW's text for the code as UTF-8, with its trailing line end cut;
// empty when the system has no words for it.
std::string FormatSystemMessage(unsigned long code);

}  // namespace tpcsdk::os::win32
