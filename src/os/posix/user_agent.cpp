#include "os/user_agent.h"

namespace tpcsdk::os {

std::u16string SystemUserAgent() { return u"Mozilla/5.0 (X11; Linux x86_64)"; }

}  // namespace tpcsdk::os
