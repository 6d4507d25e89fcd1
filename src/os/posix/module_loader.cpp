#include "os/module_loader.h"

#include <dlfcn.h>

#include <string>

#include "os/paths.h"
#include "support/utf.h"

namespace tpcsdk::os {
namespace {

std::string PathBeside(const char* fileName) {
  return Utf16ToUtf8(ModuleDirectory()) + "/" + (fileName ? fileName : "");
}

}  // namespace

LoadedModule* LoadModuleBeside(const char* fileName) {
  return static_cast<LoadedModule*>(dlopen(PathBeside(fileName).c_str(), RTLD_NOW | RTLD_LOCAL));
}

void* ModuleSymbol(LoadedModule* module, const char* name) {
  return module && name ? dlsym(module, name) : nullptr;
}

void UnloadModule(LoadedModule* module) {
  if (module) dlclose(module);
}

bool IsModuleLoadedBeside(const char* fileName) {
  void* handle = dlopen(PathBeside(fileName).c_str(), RTLD_NOW | RTLD_NOLOAD);
  if (!handle) return false;
  dlclose(handle);
  return true;
}

}  // namespace tpcsdk::os
