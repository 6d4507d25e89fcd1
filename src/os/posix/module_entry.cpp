// Load and unload hooks of the shared object on Linux.
namespace tpcsdk::os {
void RunModuleEnd(bool processEnding);
}

namespace {

// Runs at dlclose() and at normal process exit. Unlike Windows there is no loader
// lock to fear and other threads are still alive, so a full teardown is safe.
__attribute__((destructor)) void OnModuleUnload() { tpcsdk::os::RunModuleEnd(false); }

}  // namespace
