#include "os/module_loader.h"

#include <windows.h>

#include <string>

#include "os/paths.h"
#include "support/utf.h"

namespace tpcsdk::os {
namespace {

std::wstring PathBeside(const char* fileName) {
  const std::u16string path = ModuleDirectory() + u"\\" + Utf8ToUtf16(fileName ? fileName : "");
  return std::wstring(path.begin(), path.end());
}

}  // namespace

LoadedModule* LoadModuleBeside(const char* fileName) {
  return reinterpret_cast<LoadedModule*>(LoadLibraryW(PathBeside(fileName).c_str()));
}

void* ModuleSymbol(LoadedModule* module, const char* name) {
  if (!module || !name) return nullptr;
  return reinterpret_cast<void*>(GetProcAddress(reinterpret_cast<HMODULE>(module), name));
}

void UnloadModule(LoadedModule* module) {
  if (module) FreeLibrary(reinterpret_cast<HMODULE>(module));
}

bool IsModuleLoadedBeside(const char* fileName) {
  return GetModuleHandleW(PathBeside(fileName).c_str()) != nullptr;
}

}  // namespace tpcsdk::os
