// Files written by a download: the body goes to a temporary file that only this
// writer holds, and the finished file is then moved under its final name without
// replacing anything that is already there.
//
//   DownloadTarget part;
//   if (!part.Open(temp)) fail;           // another writer has it, or no such place
//   ... part.Write(...) for each piece; on a failure: part.Discard();
//   if (!part.CommitAs(final)) part.Discard();
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
  // Brings what was written to the disk and moves the file to final_path, never
  // replacing a file that is there (Windows: MoveFileExW with MOVEFILE_COPY_ALLOWED
  // once the file is closed; POSIX: a rename that refuses an existing target, made
  // while the lock is still held). True when the file has arrived; on false the file
  // stays under its own name for Discard.
  bool CommitAs(const std::u16string& final_path);
  // Closes the file, when still open, and deletes it under its own name.
  void Discard();

 private:
  std::u16string path_;
  intptr_t handle_ = -1;
};

}  // namespace tpcsdk::os
