// Download files on POSIX: an exclusively locked file, and a rename that does not
// replace its target.
#include "os/download_target.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "support/utf.h"

namespace tpcsdk::os {

DownloadTarget::~DownloadTarget() {
  if (handle_ != -1) close(static_cast<int>(handle_));
}

bool DownloadTarget::Open(const std::u16string& path) {
  if (handle_ != -1 || path.empty()) return false;
  const std::string native = Utf16ToUtf8(path);
  const int fd = open(native.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
  if (fd < 0) return false;
  // Cut only once the lock is ours, so a file another writer is filling stays whole.
  if (flock(fd, LOCK_EX | LOCK_NB) != 0 || ftruncate(fd, 0) != 0) {
    close(fd);
    return false;
  }
  handle_ = fd;
  path_ = path;
  return true;
}

bool DownloadTarget::Write(const void* data, size_t size) {
  if (handle_ == -1) return false;
  const char* p = static_cast<const char*>(data);
  while (size > 0) {
    const ssize_t n = write(static_cast<int>(handle_), p, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

bool DownloadTarget::Commit() {
  if (handle_ == -1) return false;
  const int fd = static_cast<int>(handle_);
  handle_ = -1;
  const bool synced = fsync(fd) == 0;
  return close(fd) == 0 && synced;
}

void DownloadTarget::Discard() {
  // Deleted while still locked, so no other writer can have taken it over.
  if (!path_.empty()) unlink(Utf16ToUtf8(path_).c_str());
  if (handle_ != -1) close(static_cast<int>(handle_));
  handle_ = -1;
  path_.clear();
}

bool MoveFileNoReplace(const std::u16string& from, const std::u16string& to) {
  if (from.empty() || to.empty()) return false;
  const std::string f = Utf16ToUtf8(from), t = Utf16ToUtf8(to);
  if (renameat2(AT_FDCWD, f.c_str(), AT_FDCWD, t.c_str(), RENAME_NOREPLACE) == 0) return true;
  if (errno != EINVAL && errno != ENOSYS) return false;
  // A file system without that kind of rename: a new link fails on an existing name.
  if (link(f.c_str(), t.c_str()) != 0) return false;
  unlink(f.c_str());
  return true;
}

}  // namespace tpcsdk::os
