// Paths and files: where the module, the host program and the user's application
// data live, and the few file-system calls the library makes. Paths are UTF-16 on
// every platform; the POSIX backend hands them to the file system as UTF-8.
#pragma once
#include <cstdio>
#include <string>
#include <string_view>

namespace tpcsdk::os {

// The separator between path components: a backslash on Windows, "/" elsewhere.
extern const char16_t kPathSeparator;

// Environment variable that, when set and not empty, replaces the user's roaming
// application-data folder, so tests and sandboxes never touch the real one.
inline constexpr char kAppDataOverrideVariable[] = "TPCSDK_APPDATA_DIR";

// Directory of the module (shared library) that holds this code, without a
// trailing separator; empty when it cannot be found.
std::u16string ModuleDirectory();

// Full path of the running program; empty when it cannot be found.
std::u16string HostExecutablePath();

// The user's roaming application-data folder: the override variable when set,
// otherwise the Windows roaming AppData folder or, on Linux, the XDG data home
// ($XDG_DATA_HOME, or ~/.local/share). No trailing separator. Empty when unknown.
std::u16string AppDataDirectory();

// True when the path names an existing directory.
bool IsDirectory(const std::u16string& path);

// Creates the last level of the path only; its parent must exist. True when the
// directory was created. New directories are private to the user on POSIX.
bool MakeDirectory(const std::u16string& path);

// Marks a file or directory as having no special attributes (Windows); nothing
// elsewhere.
void SetNormalAttributes(const std::u16string& path);

// True when a file or directory exists at the path.
bool PathExists(const std::u16string& path);

// Deletes a file. True on success.
bool RemoveFile(const std::u16string& path);

// Renames a file, replacing an existing target. True on success.
bool RenameFile(const std::u16string& from, const std::u16string& to);

// Opens a C stream with an fopen mode ("r+", "at+", ...). On POSIX, a file that
// the call creates gets the permissions 0600 when `user_only` is set.
std::FILE* OpenStdioFile(const std::u16string& path, const char* mode, bool user_only = false);

// URL predicates with the answers of the Windows shell's path helpers:
// PathIsUrl: a scheme of at least two characters (letters, digits, "+", "-", ".")
// followed by ":". PathIsUnc: begins with two backslashes. IsFileUrl: begins with
// "file:" in any case.
bool PathIsUrl(std::u16string_view text);
bool PathIsUnc(std::u16string_view text);
bool IsFileUrl(std::u16string_view text);

}  // namespace tpcsdk::os
