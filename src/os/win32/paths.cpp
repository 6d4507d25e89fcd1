// Windows backend of the path and file seam: the Win32 shell and file API.
#include "os/paths.h"

#include <windows.h>
#include <shlobj.h>
#include <shlwapi.h>

#include <cwchar>
#include <string>
#include <vector>

namespace tpcsdk::os {

const char16_t kPathSeparator = u'\\';

namespace {

const wchar_t* W(const std::u16string& s) { return reinterpret_cast<const wchar_t*>(s.c_str()); }

std::u16string FromW(const wchar_t* s, size_t n) {
  return std::u16string(reinterpret_cast<const char16_t*>(s), n);
}

std::u16string DirectoryOf(std::u16string file) {
  const auto sep = file.find_last_of(u"\\/");
  if (sep == std::u16string::npos) return std::u16string();
  file.resize(sep);
  return file;
}

std::u16string ModuleFileName(HMODULE module) {
  std::vector<wchar_t> buf(MAX_PATH);
  for (;;) {
    const DWORD n = GetModuleFileNameW(module, buf.data(), static_cast<DWORD>(buf.size()));
    if (n == 0) return std::u16string();
    if (n < buf.size()) return FromW(buf.data(), n);
    if (buf.size() >= 32768) return std::u16string();
    buf.resize(buf.size() * 2);
  }
}

std::u16string StripTrailingSeparators(std::u16string dir) {
  while (dir.size() > 3 && (dir.back() == u'\\' || dir.back() == u'/')) dir.pop_back();
  return dir;
}

}  // namespace

std::u16string ModuleDirectory() {
  HMODULE module = nullptr;
  if (!GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                          reinterpret_cast<LPCWSTR>(&ModuleDirectory), &module))
    return std::u16string();
  return DirectoryOf(ModuleFileName(module));
}

std::u16string HostExecutablePath() { return ModuleFileName(nullptr); }

std::u16string AppDataDirectory() {
  std::wstring name;
  for (const char* c = kAppDataOverrideVariable; *c; ++c) name.push_back(static_cast<wchar_t>(*c));
  std::vector<wchar_t> buf(MAX_PATH);
  DWORD n = GetEnvironmentVariableW(name.c_str(), buf.data(), static_cast<DWORD>(buf.size()));
  if (n >= buf.size()) {
    buf.resize(n + 1);
    n = GetEnvironmentVariableW(name.c_str(), buf.data(), static_cast<DWORD>(buf.size()));
  }
  if (n > 0 && n < buf.size()) return StripTrailingSeparators(FromW(buf.data(), n));
  wchar_t folder[MAX_PATH] = {};
  if (!SHGetSpecialFolderPathW(nullptr, folder, CSIDL_APPDATA, FALSE)) return std::u16string();
  return StripTrailingSeparators(FromW(folder, std::wcslen(folder)));
}

bool IsDirectory(const std::u16string& path) {
  if (path.empty()) return false;
  WIN32_FIND_DATAW data;
  HANDLE find = FindFirstFileW(W(path), &data);
  if (find == INVALID_HANDLE_VALUE) return false;
  FindClose(find);
  return (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

bool MakeDirectory(const std::u16string& path) {
  return !path.empty() && CreateDirectoryW(W(path), nullptr) != 0;
}

void SetNormalAttributes(const std::u16string& path) {
  if (!path.empty()) SetFileAttributesW(W(path), FILE_ATTRIBUTE_NORMAL);
}

bool PathExists(const std::u16string& path) { return !path.empty() && PathFileExistsW(W(path)) != 0; }

bool RemoveFile(const std::u16string& path) { return !path.empty() && DeleteFileW(W(path)) != 0; }

bool RenameFile(const std::u16string& from, const std::u16string& to) {
  return !from.empty() && !to.empty() && MoveFileExW(W(from), W(to), MOVEFILE_REPLACE_EXISTING) != 0;
}

std::FILE* OpenStdioFile(const std::u16string& path, const char* mode, bool) {
  if (path.empty() || mode == nullptr || *mode == '\0') return nullptr;
  std::wstring wmode;
  for (const char* m = mode; *m; ++m) wmode.push_back(static_cast<wchar_t>(static_cast<unsigned char>(*m)));
  return _wfopen(W(path), wmode.c_str());
}

bool PathIsUrl(std::u16string_view text) {
  const std::u16string s(text);
  return PathIsURLW(W(s)) != FALSE;
}

bool PathIsUnc(std::u16string_view text) {
  const std::u16string s(text);
  return PathIsUNCW(W(s)) != FALSE;
}

bool IsFileUrl(std::u16string_view text) {
  const std::u16string s(text);
  return UrlIsW(W(s), URLIS_FILEURL) != FALSE;
}

}  // namespace tpcsdk::os
