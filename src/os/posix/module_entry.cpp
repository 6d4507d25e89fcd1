// Load and unload hooks of the shared object on Linux.
#include "os/posix/http_internal.h"

namespace tpcsdk::os {
void RunModuleEnd(bool processEnding);
}

namespace {

// Runs at dlclose() and at normal process exit. Unlike Windows there is no loader
// lock to fear and other threads are still alive, so a full teardown is safe: the
// platform goes first (its clients close their requests), then every HTTP session
// still open is closed and its event thread joined, since that thread runs this
// module's code and must not outlive it.
__attribute__((destructor)) void OnModuleUnload() {
  tpcsdk::os::RunModuleEnd(false);
  tpcsdk::os::curlhttp::EndAllSessions();
}

}  // namespace
