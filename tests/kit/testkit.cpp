#include "kit/testkit.h"

#ifdef _WIN32
#include <windows.h>
#endif

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>
#include <thread>

namespace testkit {

TempDir::TempDir() {
  static std::atomic<unsigned> counter{0};
  std::random_device rd;
  for (;;) {
    auto candidate = std::filesystem::temp_directory_path() /
                     ("tpcsdk-test-" + std::to_string(rd()) + "-" + std::to_string(counter++));
    std::error_code ec;
    if (std::filesystem::create_directory(candidate, ec)) {
      path_ = candidate;
      return;
    }
  }
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

void WriteFile(const std::filesystem::path& p, const std::string& bytes) {
  std::ofstream f(p, std::ios::binary | std::ios::trunc);
  f.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::string ReadFile(const std::filesystem::path& p) {
  std::ifstream f(p, std::ios::binary);
  std::ostringstream ss;
  ss << f.rdbuf();
  return ss.str();
}

ScopedEnv::ScopedEnv(const char* name, const std::string& value) : name_(name) {
  if (const char* old = std::getenv(name)) {
    had_old_ = true;
    old_ = old;
  }
#ifdef _WIN32
  _putenv_s(name, value.c_str());
#else
  setenv(name, value.c_str(), 1);
#endif
}

ScopedEnv::~ScopedEnv() {
#ifdef _WIN32
  _putenv_s(name_.c_str(), had_old_ ? old_.c_str() : "");
#else
  if (had_old_) setenv(name_.c_str(), old_.c_str(), 1);
  else unsetenv(name_.c_str());
#endif
}

void Signal::Set() {
  std::lock_guard<std::mutex> lock(m_);
  set_ = true;
  cv_.notify_all();
}

bool Signal::WaitFor(std::chrono::milliseconds bound) {
  std::unique_lock<std::mutex> lock(m_);
  return cv_.wait_for(lock, bound, [this] { return set_; });
}

bool WaitUntil(const std::function<bool()>& cond, std::chrono::milliseconds bound) {
  const auto deadline = std::chrono::steady_clock::now() + bound;
  while (!cond()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::yield();
  }
  return true;
}

bool UnderWine() {
#ifdef _WIN32
  HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
  return ntdll && GetProcAddress(ntdll, "wine_get_version") != nullptr;
#else
  return false;
#endif
}

}  // namespace testkit
