#include "os/posix/environment.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

namespace tpcsdk::os {

std::string EnvValue(const char* name) {
  const char* v = std::getenv(name);
  return v ? std::string(v) : std::string();
}

std::string HomeDirectory() {
  std::string home = EnvValue("HOME");
  if (!home.empty()) return home;
  std::vector<char> buf(16384);
  passwd pw{};
  passwd* result = nullptr;
  if (getpwuid_r(getuid(), &pw, buf.data(), buf.size(), &result) == 0 && result && result->pw_dir)
    return result->pw_dir;
  return std::string();
}

}  // namespace tpcsdk::os
