// The registry: named keys holding named values, under three roots (the current
// user, the local machine, all users by security identifier).
//
// Windows uses the registry itself. Linux keeps one JSON document per hive, which an
// administrator can read and edit by hand (docs/registry.md describes the format):
//   local machine  /etc/tpcsdk/machine.json
//   current user   $XDG_CONFIG_HOME/tpcsdk/user.json (~/.config/tpcsdk/user.json)
//   all users      /etc/tpcsdk/users.json, whose key paths begin with the user's id
// The environment variable TPCSDK_REGISTRY_DIR, when set and not empty, holds all
// three files instead, so tests never touch the real ones.
//
// The names differ from the Windows calls they wrap so that the system's macros
// can't rename them. The calls keep the registry's own rules on both platforms: key and value names
// compare without regard to case; a read hands out the stored bytes whatever the
// value's type (a string is UTF-16 with its terminating NUL, a 32-bit value four
// little-endian bytes); a buffer too small for the data is a failure of its own. A
// key or value that can't be read is simply absent. A Linux hive that doesn't parse
// counts as empty for reading, and is never overwritten by a write.
#pragma once
#include <cstdint>
#include <string>
#include <string_view>

namespace tpcsdk::os {

enum class RegRoot { kCurrentUser, kLocalMachine, kUsers };

// An open key; null when a call failed. Close every key that a call hands out.
struct RegKeyObject;
using RegKey = RegKeyObject*;

// Value types, numbered as the registry numbers them.
inline constexpr uint32_t kRegNone = 0;
inline constexpr uint32_t kRegSz = 1;
inline constexpr uint32_t kRegExpandSz = 2;
inline constexpr uint32_t kRegBinary = 3;
inline constexpr uint32_t kRegDword = 4;
inline constexpr uint32_t kRegMultiSz = 7;
inline constexpr uint32_t kRegQword = 11;

// Outcome of a raw read.
enum class RegStatus {
  kOk,
  kNotFound,  // no such value, or no more values to enumerate
  kMoreData,  // the buffer given is too small; the size says how much is needed
  kFailed,    // a bad key or another failure
};

// Environment variable that moves the Linux hives (ignored on Windows).
inline constexpr char kRegistryDirVariable[] = "TPCSDK_REGISTRY_DIR";

// Opens root\path for reading (access mask 0x20019). A trailing backslash is
// allowed; an empty path opens the root itself.
RegKey OpenRegKey(RegRoot root, std::u16string_view path);
// Opens path below an open key for reading; an empty path gives a new handle to
// the same key.
RegKey OpenRegKey(RegKey parent, std::u16string_view path);
// Opens root\path for reading and writing, creating it and any missing parents.
RegKey CreateRegKey(RegRoot root, std::u16string_view path);
// Closes a key; null is allowed.
void CloseRegKey(RegKey key);

// Reads a value as RegQueryValueExW does. type and size may be null. With data
// null, only the type and the size in bytes are reported. With data, *size is the
// buffer's size in bytes on the way in and the data's size on the way out; when the
// buffer is too small the result is kMoreData and *size the size needed.
RegStatus QueryRegValue(RegKey key, std::u16string_view name, uint32_t* type, void* data,
                        uint32_t* size);

// The type and size in bytes of a value; false when it can't be read.
bool QueryRegValueInfo(RegKey key, std::u16string_view name, uint32_t* type, uint32_t* size);
// A value's data as text, up to its first NUL. The type isn't looked at, as with the
// registry's own call: a 32-bit value reads as the characters of its bytes.
bool QueryRegString(RegKey key, std::u16string_view name, std::u16string& out);
// A value read into a 4-byte buffer. The type isn't looked at: data of up to four
// bytes fills the low bytes (the rest are 0), longer data is a failure.
bool QueryRegDword(RegKey key, std::u16string_view name, uint32_t& out);
// The number of values of a key.
bool QueryRegValueCount(RegKey key, uint32_t& count);

// Enumerates the value at index as RegEnumValueW does. name_chars is the name
// buffer's size in characters, its terminating NUL included: a longer name gives
// kMoreData. type, data and size may be null, with data and size as for
// QueryRegValue. kNotFound means there is no value at index. Windows enumerates in
// the registry's order, Linux in the order of the names.
RegStatus EnumRegValue(RegKey key, uint32_t index, std::u16string& name, uint32_t name_chars,
                       uint32_t* type, void* data, uint32_t* size);

// Writes a string value (REG_SZ) or a 32-bit value (REG_DWORD) into a key opened
// with CreateRegKey.
bool SetRegString(RegKey key, std::u16string_view name, std::u16string_view value);
bool SetRegDword(RegKey key, std::u16string_view name, uint32_t value);

// Deletes root\path with all its sub-keys and values. True when it existed and is
// gone. For installers, administrators' tools and tests; the library itself never
// deletes settings.
bool DeleteRegTree(RegRoot root, std::u16string_view path);

}  // namespace tpcsdk::os
