// POSIX backend of the path and file seam. Paths arrive as UTF-16 and go to the
// file system as UTF-8.
#include "os/paths.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <string>
#include <vector>

#include "os/posix/environment.h"
#include "support/utf.h"

namespace tpcsdk::os {

const char16_t kPathSeparator = u'/';

namespace {

std::string Native(const std::u16string& path) { return Utf16ToUtf8(path); }

std::string DirectoryOf(const std::string& file) {
  const auto slash = file.find_last_of('/');
  if (slash == std::string::npos) return std::string();
  if (slash == 0) return "/";
  return file.substr(0, slash);
}

std::string StripTrailingSlashes(std::string dir) {
  while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
  return dir;
}

}  // namespace

std::u16string ModuleDirectory() {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&ModuleDirectory), &info) == 0 || info.dli_fname == nullptr)
    return std::u16string();
  std::string file = info.dli_fname;
  if (file.find('/') == std::string::npos) {
    // A program found through PATH reports its bare name: use the resolved path.
    return Utf8ToUtf16(DirectoryOf(Utf16ToUtf8(HostExecutablePath())));
  }
  char resolved[PATH_MAX];
  if (realpath(file.c_str(), resolved)) file = resolved;
  return Utf8ToUtf16(DirectoryOf(file));
}

std::u16string HostExecutablePath() {
  std::vector<char> buf(1024);
  for (;;) {
    const ssize_t n = readlink("/proc/self/exe", buf.data(), buf.size());
    if (n < 0) return std::u16string();
    if (static_cast<size_t>(n) < buf.size()) return Utf8ToUtf16(std::string(buf.data(), static_cast<size_t>(n)));
    if (buf.size() >= 65536) return std::u16string();
    buf.resize(buf.size() * 2);
  }
}

std::u16string AppDataDirectory() {
  std::string dir = EnvValue(kAppDataOverrideVariable);
  if (dir.empty()) {
    // The XDG base directory rules: a relative XDG_DATA_HOME is ignored.
    dir = EnvValue("XDG_DATA_HOME");
    if (dir.empty() || dir[0] != '/') {
      const std::string home = HomeDirectory();
      if (home.empty()) return std::u16string();
      dir = StripTrailingSlashes(home) + "/.local/share";
    }
  }
  return Utf8ToUtf16(StripTrailingSlashes(dir));
}

bool IsDirectory(const std::u16string& path) {
  struct stat st {};
  return !path.empty() && stat(Native(path).c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool MakeDirectory(const std::u16string& path) {
  return !path.empty() && mkdir(Native(path).c_str(), 0700) == 0;
}

void SetNormalAttributes(const std::u16string&) {}

bool PathExists(const std::u16string& path) {
  struct stat st {};
  return !path.empty() && stat(Native(path).c_str(), &st) == 0;
}

bool RemoveFile(const std::u16string& path) {
  return !path.empty() && unlink(Native(path).c_str()) == 0;
}

bool RenameFile(const std::u16string& from, const std::u16string& to) {
  return !from.empty() && !to.empty() && rename(Native(from).c_str(), Native(to).c_str()) == 0;
}

std::FILE* OpenStdioFile(const std::u16string& path, const char* mode, bool user_only) {
  if (path.empty() || mode == nullptr || *mode == '\0') return nullptr;
  // Translate the fopen mode to open(2) flags; "t" and "b" make no difference here.
  bool plus = false;
  std::string stdio_mode(1, mode[0]);
  for (const char* m = mode + 1; *m; ++m) {
    if (*m == '+') plus = true;
  }
  if (plus) stdio_mode += '+';
  int flags = 0;
  switch (mode[0]) {
    case 'r': flags = plus ? O_RDWR : O_RDONLY; break;
    case 'w': flags = (plus ? O_RDWR : O_WRONLY) | O_CREAT | O_TRUNC; break;
    case 'a': flags = (plus ? O_RDWR : O_WRONLY) | O_CREAT | O_APPEND; break;
    default: return nullptr;
  }
  const int fd = open(Native(path).c_str(), flags | O_CLOEXEC, user_only ? 0600 : 0666);
  if (fd < 0) return nullptr;
  std::FILE* f = fdopen(fd, stdio_mode.c_str());
  if (f == nullptr) close(fd);
  return f;
}

}  // namespace tpcsdk::os
