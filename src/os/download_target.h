// Files written by a download: the body goes to a temporary file that only this
// writer holds, and the finished file is then moved under its final name without
// replacing anything that is already there.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>

namespace tpcsdk::os {

class DownloadTarget {
 public:
  DownloadTarget() = default;
  ~DownloadTarget();  // closes; the file stays
  DownloadTarget(const DownloadTarget&) = delete;
  DownloadTarget& operator=(const DownloadTarget&) = delete;

  // Opens path for writing, created when missing and cut to nothing when there, so no
  // old tail outlives a shorter body. Another writer that holds the file makes this
  // fail and is left alone (Windows: the file is shared for reading only; POSIX: an
  // exclusive lock on it).
  bool Open(const std::u16string& path);
  // Writes all of data or fails.
  bool Write(const void* data, size_t size);
  // Brings what was written to the disk and closes the file; false when it may not be
  // all there.
  bool Commit();
  // Closes the file and deletes it.
  void Discard();

 private:
  std::u16string path_;
  intptr_t handle_ = -1;
};

// Moves a file to a new name in the same or another directory, never replacing an
// existing file there (Windows: MoveFileExW with MOVEFILE_COPY_ALLOWED; POSIX: a
// rename that refuses an existing target). True when the file has arrived.
bool MoveFileNoReplace(const std::u16string& from, const std::u16string& to);

}  // namespace tpcsdk::os
