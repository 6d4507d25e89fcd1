// The module as tdoc holds it: loaded at run time like any host loads it, its
// exports looked up by name, the platform object taken once, and the helpers
// every command shares (wide text, released out-buffers, bounded calls, result
// names and exit statuses).
#pragma once
#include <cstdint>
#include <functional>
#include <string>

#include "tpcsdk/IPDFPlatform.h"
#include "tpcsdk/ITetherdocServer.h"

namespace tdoc {

// Exit statuses, as the README documents them.
enum Exit : int {
  kExitOk = 0,
  kExitFailed = 1,      // a step of demo or watch failed, or a local file could not be used
  kExitUsage = 2,       // unknown command or option, missing or bad argument
  kExitNoModule = 3,    // the module cannot be loaded or lacks its exports
  kExitNoAnswer = 4,    // a call did not come back within --timeout
  kExitResultBase = 10  // a result code r other than 0: 10 + |r| (-2 gives 12, 3 gives 13 ...)
};
int ExitForResult(int result);
// "TDC_HRESULT_FORBIDDEN" and so on; "unknown" for other values.
const char* ResultName(int result);

using WString = std::basic_string<TDC_WCHAR>;
WString Wide(const std::string& utf8);
std::string Narrow(const TDC_WCHAR* text);

// Thrown by commands for one clear line on standard error and an exit status.
struct Failure {
  int exit;
  std::string message;
};

class Host {
 public:
  // Loads the module from `path` (empty: the module beside tdoc) and takes the
  // platform object. Throws Failure(kExitNoModule) when it cannot.
  void Load(const std::string& path);
  bool loaded() const { return platform_ != nullptr; }
  // Unloads the module, which ends its platform and every client. Only for a
  // caller that is done with the module and holds none of its pointers.
  void Unload();
  IPDFPlatform* platform() const { return platform_; }
  const std::string& module_path() const { return module_path_; }

  // Takes a text block the module handed out, and gives the block back.
  std::string TakeWide(TDC_LPWSTR text) const;
  std::string TakeText(char* text) const;

  // Runs one call into the module on a worker thread and waits at most
  // `timeout_ms`. When it does not come back, stops every call in flight, waits
  // a little more, prints `what` as not answering and ends the process at once
  // with kExitNoAnswer.
  int Bounded(const std::string& what, int timeout_ms, const std::function<int()>& call) const;

 private:
  void* module_ = nullptr;
  IPDFPlatform* platform_ = nullptr;
  int (*release_wide_)(TDC_LPWSTR) = nullptr;
  int (*release_text_)(char*) = nullptr;
  std::string module_path_;
};

// Milliseconds on a steady clock, for step timings.
int64_t NowMs();

}  // namespace tdoc
