// The system part of the user agent this library sends.
#pragma once
#include <string>

namespace tpcsdk::os {

// Windows: the agent the system's URL moniker layer reports for this process.
// Linux: the fixed text "Mozilla/5.0 (X11; Linux x86_64)", so the service sees one
// stable agent for every Linux host.
std::u16string SystemUserAgent();

}  // namespace tpcsdk::os
