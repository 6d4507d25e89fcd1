// DllMain: the module's start and end on Windows.
#include <windows.h>

namespace tpcsdk::os {
void RunModuleEnd(bool processEnding);
}

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID reserved) {
  switch (reason) {
    case DLL_PROCESS_ATTACH:
      // No per-thread work: skip the thread notifications so thread start and exit
      // never have to enter this module under the loader lock.
      DisableThreadLibraryCalls(instance);
      break;
    case DLL_PROCESS_DETACH:
      // reserved is non-null when the process is ending rather than the module being
      // freed by FreeLibrary.
      tpcsdk::os::RunModuleEnd(reserved != nullptr);
      break;
    default:
      break;
  }
  return TRUE;
}
