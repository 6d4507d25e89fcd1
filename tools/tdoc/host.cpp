#include "host.h"

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <thread>

#include "sys.h"

namespace tdoc {

int ExitForResult(int result) {
  if (result == TDC_HRESULT_OK) return kExitOk;
  const int magnitude = result < 0 ? -result : result;
  return magnitude <= 9 ? kExitResultBase + magnitude : kExitResultBase + 10;
}

const char* ResultName(int result) {
  switch (result) {
    case TDC_HRESULT_OK: return "TDC_HRESULT_OK";
    case TDC_HRESULT_FAILED: return "TDC_HRESULT_FAILED";
    case TDC_HRESULT_HTTP_ERROR: return "TDC_HRESULT_HTTP_ERROR";
    case TDC_HRESULT_FORBIDDEN: return "TDC_HRESULT_FORBIDDEN";
    case TDC_HRESULT_BAD_ARGUMENT: return "TDC_HRESULT_BAD_ARGUMENT";
    case TDC_HRESULT_SERVICE_ERROR: return "TDC_HRESULT_SERVICE_ERROR";
    case TDC_HRESULT_NO_URL: return "TDC_HRESULT_NO_URL";
    case TDC_HRESULT_NOT_READY: return "TDC_HRESULT_NOT_READY";
    case TDC_HRESULT_RET_210007: return "TDC_HRESULT_RET_210007";
    default: return "unknown";
  }
}

// UTF-8 to UTF-16 and back; a malformed byte becomes U+FFFD.
WString Wide(const std::string& utf8) {
  WString out;
  size_t i = 0;
  const size_t n = utf8.size();
  while (i < n) {
    const unsigned char c = static_cast<unsigned char>(utf8[i]);
    uint32_t cp = 0xFFFD;
    size_t len = c < 0x80 ? 1 : (c >> 5) == 6 ? 2 : (c >> 4) == 14 ? 3 : (c >> 3) == 30 ? 4 : 0;
    if (len == 0 || i + len > n) {
      ++i;
    } else {
      cp = len == 1 ? c : (c & (0x7F >> len));
      bool ok = true;
      for (size_t k = 1; k < len; ++k) {
        const unsigned char t = static_cast<unsigned char>(utf8[i + k]);
        if ((t & 0xC0) != 0x80) ok = false;
        cp = (cp << 6) | (t & 0x3F);
      }
      i += ok ? len : 1;
      if (!ok || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) cp = 0xFFFD;
    }
    if (cp >= 0x10000) {
      cp -= 0x10000;
      out += static_cast<TDC_WCHAR>(0xD800 + (cp >> 10));
      out += static_cast<TDC_WCHAR>(0xDC00 + (cp & 0x3FF));
    } else {
      out += static_cast<TDC_WCHAR>(cp);
    }
  }
  return out;
}

std::string Narrow(const TDC_WCHAR* text) {
  std::string out;
  if (!text) return out;
  for (size_t i = 0; text[i]; ++i) {
    uint32_t cp = static_cast<uint16_t>(text[i]);
    if (cp >= 0xD800 && cp <= 0xDBFF && text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF) {
      cp = 0x10000 + ((cp - 0xD800) << 10) + (static_cast<uint16_t>(text[i + 1]) - 0xDC00);
      ++i;
    } else if (cp >= 0xD800 && cp <= 0xDFFF) {
      cp = 0xFFFD;
    }
    if (cp < 0x80) {
      out += static_cast<char>(cp);
    } else if (cp < 0x800) {
      out += static_cast<char>(0xC0 | (cp >> 6));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
      out += static_cast<char>(0xE0 | (cp >> 12));
      out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | (cp >> 18));
      out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
      out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    }
  }
  return out;
}

void Host::Load(const std::string& path) {
  const std::string file =
      path.empty() ? sys::ExecutableDirectory() + sys::PathSeparator() + sys::ModuleFileName() : path;
  std::string error;
  void* module = sys::LoadModule(file, &error);
  if (!module) throw Failure{kExitNoModule, "cannot load the module " + file + ": " + error};
  auto get = reinterpret_cast<IPDFPlatform* (*)()>(sys::ModuleSymbol(module, "TDC_GetTDOCPlatform"));
  release_wide_ = reinterpret_cast<int (*)(TDC_LPWSTR)>(sys::ModuleSymbol(module, "TDC_ReleaseLPWSTR"));
  release_text_ = reinterpret_cast<int (*)(char*)>(sys::ModuleSymbol(module, "TDC_ReleaseLPSTR"));
  if (!get || !release_wide_ || !release_text_)
    throw Failure{kExitNoModule, file + " does not export TDC_GetTDOCPlatform and the release calls"};
  module_ = module;
  module_path_ = sys::LoadedModulePath(module);
  if (module_path_.empty()) module_path_ = file;
  // The first call creates the platform; it comes before any thread of ours.
  platform_ = get();
  if (!platform_) throw Failure{kExitNoModule, "TDC_GetTDOCPlatform gave no platform object"};
}

void Host::Unload() {
  if (!module_) return;
  platform_ = nullptr;
  sys::UnloadModule(module_);
  module_ = nullptr;
}

std::string Host::TakeWide(TDC_LPWSTR text) const {
  if (!text) return std::string();
  std::string out = Narrow(text);
  release_wide_(text);
  return out;
}

std::string Host::TakeText(char* text) const {
  if (!text) return std::string();
  std::string out(text);
  release_text_(text);
  return out;
}

int Host::Bounded(const std::string& what, int timeout_ms, const std::function<int()>& call) const {
  struct Shared {
    std::mutex m;
    std::condition_variable cv;
    bool done = false;
    int result = TDC_HRESULT_FAILED;
  };
  auto shared = std::make_shared<Shared>();
  std::thread worker([shared, call] {
    const int result = call();
    std::lock_guard<std::mutex> hold(shared->m);
    shared->result = result;
    shared->done = true;
    shared->cv.notify_all();
  });
  std::unique_lock<std::mutex> lock(shared->m);
  if (!shared->cv.wait_for(lock, std::chrono::milliseconds(timeout_ms), [&] { return shared->done; })) {
    // Ask the module to end what it has in flight and give it a short while, then
    // end the process: a module whose exchange was cut off may still hold the
    // connection, and its unload code would wait for it.
    // The stop itself may wait on the exchange, so it runs on a thread of its own.
    if (IPDFPlatform* platform = platform_) std::thread([platform] { platform->StopAllRequest(); }).detach();
    shared->cv.wait_for(lock, std::chrono::seconds(3), [&] { return shared->done; });
    std::fprintf(stderr, "tdoc: %s: no answer within %d ms\n", what.c_str(), timeout_ms);
    std::fflush(stdout);
    std::fflush(stderr);
    // A call that ended within the grace is joined; one still in the module is let go,
    // as the process ends under it.
    const bool ended = shared->done;
    lock.unlock();
    if (ended)
      worker.join();
    else
      worker.detach();
    sys::HardExit(kExitNoAnswer);
  }
  lock.unlock();
  worker.join();
  return shared->result;
}

int64_t NowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

}  // namespace tdoc
