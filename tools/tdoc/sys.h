// What tdoc needs of the operating system, behind one header: loading the module,
// paths, the environment, Ctrl-C, a plain loopback socket, the registry as an
// administrator reads it, and a child process. sys_posix.cpp and sys_win32.cpp
// implement it; nothing else in the tool includes a system header.
#pragma once
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

namespace tdoc::sys {

// The program's arguments as UTF-8, the program's name first (on Windows taken
// from the wide command line, so text in any script arrives intact).
std::vector<std::string> Arguments(int argc, char** argv);

// File name of the module on this platform: libtpcsdk.so or TPCSDK64.dll.
const char* ModuleFileName();
// Directory of the running tdoc program (UTF-8, no trailing separator).
std::string ExecutableDirectory();
// The platform's path separator.
char PathSeparator();

// Loads the module the way a host does (dlopen / LoadLibraryW). Null with `error`
// set when it cannot be loaded.
void* LoadModule(const std::string& path, std::string* error);
// Unloads the module (dlclose / FreeLibrary); the module ends its platform.
void UnloadModule(void* module);
// True where a loaded module's file cannot be removed (Windows).
bool LoadedModuleFileIsLocked();
// An export of the loaded module, or null.
void* ModuleSymbol(void* module, const char* name);
// The full path of the file the module was loaded from.
std::string LoadedModulePath(void* module);

// Ends the process at once with `code`, without running the module's unload
// code: used when a call into the module did not come back within its bound.
[[noreturn]] void HardExit(int code);

// Keeps standard output for tdoc's own JSON: gives a stream on the original
// standard output and points the process's standard output at standard error, so
// that what the module prints there itself (a line per downloaded file) cannot mix
// into the document. Standard output stays as it is when this fails.
std::FILE* SetAsideStandardOutput();

std::string GetEnv(const char* name);
void SetEnv(const char* name, const std::string& value);

// Calls `handler` once on a thread of its own when the user presses Ctrl-C (or
// the process gets SIGTERM). Install it before the module starts threads.
void OnInterrupt(std::function<void()> handler);

// One plain HTTP/1.1 exchange over a fresh connection to "http://host:port".
// Status 0 with `error` set when nothing usable came back within the bound.
struct HttpReply {
  int status = 0;
  std::string body;
  std::string error;
};
HttpReply HttpExchange(const std::string& base_url, const std::string& method,
                       const std::string& target, const std::string& body, int timeout_ms);

// A string value of the registry as an administrator reads it (on Linux, the
// JSON hive files of the library). `where` receives a readable location.
enum class Hive { CurrentUser, LocalMachine };
bool ReadRegistryString(Hive hive, const std::string& key, const std::string& value,
                        std::string* out);
std::string DescribeHive(Hive hive);

// Whether a key of the current user's registry exists, and its removal with all below
// it. Used by the demo to leave the user's registry as it found it; on Linux the
// library's registry files lie in the demo's own folder, so the first says false and
// the second does nothing.
bool UserRegistryKeyExists(const std::string& key);
void DeleteUserRegistryKey(const std::string& key);

// Starts the emulator program and reads its base URL from the first line it
// prints; false with `error` set when it does not start or print within the bound.
struct Child {
  long long id = 0;
  void* handle = nullptr;
};
bool StartEmulator(const std::string& program, int timeout_ms, Child* child, std::string* url,
                   std::string* error);
void StopChild(Child* child);
// True while a child started here has not been stopped.
inline bool ChildRunning(const Child& child) { return child.id != 0; }

// Copies a file; false when it cannot.
bool CopyFileTo(const std::string& from, const std::string& to);

}  // namespace tdoc::sys
