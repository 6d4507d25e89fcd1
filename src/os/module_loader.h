// Loading a module at run time by file name, the way a host loads this library. The
// file is looked for beside the module that holds this code.
#pragma once

namespace tpcsdk::os {

struct LoadedModule;

// Null when the module could not be loaded.
LoadedModule* LoadModuleBeside(const char* fileName);
// The address of an exported name; null when absent.
void* ModuleSymbol(LoadedModule* module, const char* name);
// Drops this reference; the module goes once no reference is left.
void UnloadModule(LoadedModule* module);
// True while the module beside this one is still in the process, without loading it.
bool IsModuleLoadedBeside(const char* fileName);

}  // namespace tpcsdk::os
