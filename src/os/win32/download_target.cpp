// Download files on Windows: CreateFileW shared for reading only, MoveFileExW.
#include "os/download_target.h"

#include <windows.h>

namespace tpcsdk::os {

namespace {

const wchar_t* W(const std::u16string& s) { return reinterpret_cast<const wchar_t*>(s.c_str()); }

HANDLE H(intptr_t h) { return reinterpret_cast<HANDLE>(h); }

}  // namespace

DownloadTarget::~DownloadTarget() {
  if (handle_ != -1) CloseHandle(H(handle_));
}

bool DownloadTarget::Open(const std::u16string& path) {
  if (handle_ != -1 || path.empty()) return false;
  HANDLE h = CreateFileW(W(path), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                         CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (h == INVALID_HANDLE_VALUE) return false;
  handle_ = reinterpret_cast<intptr_t>(h);
  path_ = path;
  return true;
}

bool DownloadTarget::Write(const void* data, size_t size) {
  if (handle_ == -1) return false;
  const char* p = static_cast<const char*>(data);
  while (size > 0) {
    const DWORD chunk = size > 0x40000000 ? 0x40000000 : static_cast<DWORD>(size);
    DWORD written = 0;
    if (!WriteFile(H(handle_), p, chunk, &written, nullptr) || written == 0) return false;
    p += written;
    size -= written;
  }
  return true;
}

bool DownloadTarget::CommitAs(const std::u16string& final_path) {
  if (handle_ == -1 || final_path.empty()) return false;
  const bool flushed = FlushFileBuffers(H(handle_)) != 0;
  const bool closed = CloseHandle(H(handle_)) != 0;
  handle_ = -1;
  return flushed && closed && MoveFileExW(W(path_), W(final_path), MOVEFILE_COPY_ALLOWED) != 0;
}

void DownloadTarget::Discard() {
  if (handle_ != -1) CloseHandle(H(handle_));
  handle_ = -1;
  if (!path_.empty()) DeleteFileW(W(path_));
  path_.clear();
}

}  // namespace tpcsdk::os
