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

namespace {

// A rename that refuses an existing target; where the file system has no such rename,
// a new link, which fails on an existing name, and the removal of the old one.
bool RenameNoReplace(const std::string& from, const std::string& to) {
  if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return true;
  if (errno != EINVAL && errno != ENOSYS) return false;
  if (link(from.c_str(), to.c_str()) != 0) return false;
  unlink(from.c_str());
  return true;
}

}  // namespace

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

bool DownloadTarget::CommitAs(const std::u16string& final_path) {
  if (handle_ == -1 || final_path.empty()) return false;
  const int fd = static_cast<int>(handle_);
  // Moved while still locked, so no other writer can have cut the file meanwhile.
  if (fsync(fd) != 0 || !RenameNoReplace(Utf16ToUtf8(path_), Utf16ToUtf8(final_path))) return false;
  handle_ = -1;
  path_.clear();
  close(fd);
  return true;
}

void DownloadTarget::Discard() {
  // Deleted while still locked, so no other writer can have taken it over.
  if (!path_.empty()) unlink(Utf16ToUtf8(path_).c_str());
  if (handle_ != -1) close(static_cast<int>(handle_));
  handle_ = -1;
  path_.clear();
}

}  // namespace tpcsdk::os
