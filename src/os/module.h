// The module's start and end hooks. The loader calls into os/ (DllMain on Windows,
// load/unload hooks on Linux); the platform registers what runs at the end.
#pragma once

namespace tpcsdk::os {

// processEnding is true when the whole process is terminating rather than the module
// being unloaded from a live process. On Windows the loader lock is held and every
// other thread is already gone then, so the handler must not wait for any thread or
// for the HTTP client; it may only release what is local.
using ModuleEndHandler = void (*)(bool processEnding);

// Installs the handler run once at module end; replaces any earlier one.
void SetModuleEndHandler(ModuleEndHandler handler);

}  // namespace tpcsdk::os
