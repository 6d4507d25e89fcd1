// Helpers shared by the test programs of both platforms.
#pragma once
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>

namespace testkit {

// A fresh directory under the system's temporary folder, removed with its
// contents when the object goes.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
};

// Writes bytes to a file, creating or truncating it.
void WriteFile(const std::filesystem::path& p, const std::string& bytes);
// Reads a whole file; empty when it cannot be read.
std::string ReadFile(const std::filesystem::path& p);

// Sets an environment variable for the life of the object, restoring the old value.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const std::string& value);
  ~ScopedEnv();
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  std::string name_;
  std::string old_;
  bool had_old_ = false;
};

// A one-shot signal that a test waits on with a bound instead of sleeping.
class Signal {
 public:
  void Set();
  // True when set before the deadline.
  bool WaitFor(std::chrono::milliseconds bound);

 private:
  std::mutex m_;
  std::condition_variable cv_;
  bool set_ = false;
};

// Polls a condition until it holds or the bound passes; true when it held.
bool WaitUntil(const std::function<bool()>& cond, std::chrono::milliseconds bound);

// True when the Windows build runs under wine, whose WinHTTP lacks a few behaviours.
bool UnderWine();

}  // namespace testkit
