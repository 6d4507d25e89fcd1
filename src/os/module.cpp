#include "os/module.h"

#include <atomic>

namespace tpcsdk::os {

std::atomic<ModuleEndHandler> g_moduleEndHandler{nullptr};

void SetModuleEndHandler(ModuleEndHandler handler) { g_moduleEndHandler.store(handler); }

// Called by the platform's entry hook.
void RunModuleEnd(bool processEnding) {
  if (ModuleEndHandler handler = g_moduleEndHandler.exchange(nullptr)) handler(processEnding);
}

}  // namespace tpcsdk::os
