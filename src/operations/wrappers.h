// Wrapper documents: the PDF files the service publishes for the host application
// (protect, request permission, and the licence-code variant of the latter), kept
// current in the client's cache directory. The pieces of UpdateWrapperDocuments that
// stand on their own: the update time as a date and its comparison, where the stored
// time lies in the registry, and the files' names and folder.
#pragma once
#include <string>
#include <string_view>

namespace tpcsdk::wrappers {

// The service's update time as an OLE date. A text that doesn't parse gives 0.0 when
// the parser calls it a type mismatch and -1.0 for any other failure; those values
// then take part in the comparison like dates. The text ends at its first NUL.
double ParseUpdateTime(std::u16string_view text);

// True when two OLE dates lie less than half a second apart (dates before 1899-12-30
// are brought onto a linear scale first).
bool SameUpdateTime(double a, double b);

// The current user's key of the stored update time:
// SOFTWARE\Tarvo Software\<an> <av up to its first ".">.0\Plugins\<host name>
// An av without "." gives "<an> .0". The writer's form ends in a backslash; the
// reader's spells "plugins" in lower case (the registry doesn't tell them apart).
std::u16string UpdateTimeKey(std::string_view an, std::string_view av,
                             std::u16string_view host_name, bool for_writing);
inline constexpr char16_t kUpdateTimeValue[] = u"CustomWrapperUpdateTime";

// The stored update time, word for word as the service gave it; empty when absent.
std::u16string ReadWrapperUpdateTime(std::string_view an, std::string_view av,
                                     std::u16string_view host_name);
// Stores the update time as a string value, creating the key when it is missing.
void WriteWrapperUpdateTime(std::string_view an, std::string_view av,
                            std::u16string_view host_name, std::u16string_view text);

// The three files in download order. Only "zh-cn" (in any case, and nothing longer)
// has the "_cn" names; every other language has the "_en" names.
enum class WrapperFile { kProtect, kRequestPermission, kRequestPermissionLicense };
inline constexpr WrapperFile kWrapperFiles[] = {WrapperFile::kProtect,
                                                WrapperFile::kRequestPermission,
                                                WrapperFile::kRequestPermissionLicense};
std::u16string WrapperFileName(WrapperFile file, std::string_view al);

// The folder of the wrapper files: the client's cache directory for the host name and
// application name, with its final separator; made when missing. Empty when there is
// no application-data folder.
std::u16string WrapperDirectory(std::u16string_view host_name, std::string_view an);

}  // namespace tpcsdk::wrappers
