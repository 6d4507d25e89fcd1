// Windows backend of the registry seam: the registry itself. An open key is the
// HKEY that the system hands out.
#include <windows.h>

#include <string>

#include "os/registry.h"

namespace tpcsdk::os {
namespace {

constexpr REGSAM kReadAccess = 0x20019;  // KEY_READ

HKEY RootKey(RegRoot root) {
  switch (root) {
    case RegRoot::kLocalMachine:
      return HKEY_LOCAL_MACHINE;
    case RegRoot::kUsers:
      return HKEY_USERS;
    case RegRoot::kCurrentUser:
    default:
      return HKEY_CURRENT_USER;
  }
}

HKEY H(RegKey key) { return reinterpret_cast<HKEY>(key); }
RegKey K(HKEY key) { return reinterpret_cast<RegKey>(key); }

std::wstring W(std::u16string_view s) { return std::wstring(s.begin(), s.end()); }

RegStatus Status(LONG rc) {
  switch (rc) {
    case ERROR_SUCCESS:
      return RegStatus::kOk;
    case ERROR_FILE_NOT_FOUND:
    case ERROR_NO_MORE_ITEMS:
      return RegStatus::kNotFound;
    case ERROR_MORE_DATA:
      return RegStatus::kMoreData;
    default:
      return RegStatus::kFailed;
  }
}

RegKey Open(HKEY parent, std::u16string_view path) {
  HKEY h = nullptr;
  if (RegOpenKeyExW(parent, W(path).c_str(), 0, kReadAccess, &h) != ERROR_SUCCESS) return nullptr;
  return K(h);
}

}  // namespace

RegKey OpenRegKey(RegRoot root, std::u16string_view path) { return Open(RootKey(root), path); }

RegKey OpenRegKey(RegKey parent, std::u16string_view path) {
  return parent ? Open(H(parent), path) : nullptr;
}

RegKey CreateRegKey(RegRoot root, std::u16string_view path) {
  HKEY h = nullptr;
  if (RegCreateKeyExW(RootKey(root), W(path).c_str(), 0, nullptr, 0, KEY_READ | KEY_WRITE, nullptr,
                      &h, nullptr) != ERROR_SUCCESS)
    return nullptr;
  return K(h);
}

void CloseRegKey(RegKey key) {
  if (key) ::RegCloseKey(H(key));
}

RegStatus QueryRegValue(RegKey key, std::u16string_view name, uint32_t* type, void* data,
                        uint32_t* size) {
  if (!key || (data && !size)) return RegStatus::kFailed;
  DWORD t = 0;
  DWORD n = size ? *size : 0;
  LONG rc = RegQueryValueExW(H(key), W(name).c_str(), nullptr, &t, static_cast<BYTE*>(data),
                             size ? &n : nullptr);
  if (type) *type = t;
  if (size && (rc == ERROR_SUCCESS || rc == ERROR_MORE_DATA)) *size = n;
  return Status(rc);
}

bool QueryRegValueCount(RegKey key, uint32_t& count) {
  if (!key) return false;
  DWORD values = 0;
  if (RegQueryInfoKeyW(H(key), nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &values,
                       nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
    return false;
  count = values;
  return true;
}

RegStatus EnumRegValue(RegKey key, uint32_t index, std::u16string& name, uint32_t name_chars,
                       uint32_t* type, void* data, uint32_t* size) {
  if (!key || name_chars == 0 || (data && !size)) return RegStatus::kFailed;
  std::wstring buf(name_chars, L'\0');
  DWORD chars = name_chars;
  DWORD t = 0;
  DWORD n = size ? *size : 0;
  LONG rc = RegEnumValueW(H(key), index, &buf[0], &chars, nullptr, &t, static_cast<BYTE*>(data),
                          size ? &n : nullptr);
  if (type) *type = t;
  if (size && (rc == ERROR_SUCCESS || rc == ERROR_MORE_DATA)) *size = n;
  if (rc == ERROR_SUCCESS) name.assign(buf.begin(), buf.begin() + chars);
  return Status(rc);
}

bool SetRegString(RegKey key, std::u16string_view name, std::u16string_view value) {
  if (!key) return false;
  std::wstring v = W(value);
  const auto bytes = static_cast<DWORD>((v.size() + 1) * sizeof(wchar_t));
  return RegSetValueExW(H(key), W(name).c_str(), 0, REG_SZ,
                        reinterpret_cast<const BYTE*>(v.c_str()), bytes) == ERROR_SUCCESS;
}

bool SetRegDword(RegKey key, std::u16string_view name, uint32_t value) {
  if (!key) return false;
  DWORD v = value;
  return RegSetValueExW(H(key), W(name).c_str(), 0, REG_DWORD, reinterpret_cast<const BYTE*>(&v),
                        sizeof(v)) == ERROR_SUCCESS;
}

bool DeleteRegTree(RegRoot root, std::u16string_view path) {
  if (path.empty()) return false;
  return RegDeleteTreeW(RootKey(root), W(path).c_str()) == ERROR_SUCCESS;
}

}  // namespace tpcsdk::os
