// Which product loaded the library, and the names and folders that follow from it:
// the root-domain test that decides whether a text looks like a host, the product
// key of the registry, the application folder name and the local cache paths.
#pragma once
#include <string>
#include <string_view>

namespace tpcsdk {

// The known domain suffixes, joined by "|", with "||" in front and "|" at the end.
extern const char16_t RootDomainSuffixes[];

enum class ProductKind { Editor, Reader };

inline constexpr char16_t kEditorProductName[] = u"Tarvo PDF Editor";
inline constexpr char16_t kReaderProductName[] = u"Tarvo PDF Reader";
inline constexpr char16_t kVendorFolder[] = u"Tarvo Software";

// The names and the key below need nothing but this header, so the preference
// store, which sits below the platform, takes them from here too.
inline const char16_t* ProductName(ProductKind kind) {
  return kind == ProductKind::Editor ? kEditorProductName : kReaderProductName;
}

// The product name, a blank, the version up to its first ".", then ".0": every
// version of one major release shares one key ("7.5.3" gives "... 7.0").
inline std::u16string ProductKey(std::u16string_view product_name, std::u16string_view version) {
  std::u16string key(product_name);
  key += u' ';
  key += version.substr(0, version.find(u'.'));
  key += u".0";
  return key;
}

// True when the last two labels, or the last label, of the dotted text is one of
// RootDomainSuffixes, compared without regard to case for A-Z. A text of fewer than
// two labels never is. Ports are not stripped: "a.com:8080" ends in "com:8080".
bool IsRootDomain(std::u16string_view text);

// True when the text can stand for a service host: a URL with a scheme, a name under
// a known suffix (with or without a path), a UNC path or a file URL.
bool IsValidHostString(std::u16string_view text);

// Maps older product names to the present ones; the first rule whose text the name
// contains replaces the whole name. Other names come back unchanged.
std::string GetAppFolderName(const std::string& name);

// The product whose log folder is used: with an application type, the Editor when
// the type holds "Brindle"; without one, the Editor when TarvoPDFEditor.exe lies in
// the module's directory. Otherwise the Reader.
ProductKind LogProductKind(std::u16string_view app_type);

// True when the path (up to 259 characters, one trailing separator cut) is a directory.
bool IsDirectory(const std::u16string& path);

// Creates the last level of the path when it is not a directory yet. Failures are
// not reported: they show when a file inside cannot be opened.
void EnsureDirectory(const std::u16string& path);

// True when the name can stand as one file or folder name inside another folder on
// both platforms: not empty, not "." or "..", and without a separator, a colon (a
// drive or a stream), a wildcard, a quote, an angle bracket, a bar or a control
// character. Names that come from outside go through it before they become a path.
bool IsPlainFileName(std::u16string_view name);

// <app data>/Tarvo Software/<GetAppFolderName(app)>, each level ensured on the way;
// empty when the application-data folder is unknown or the folder name isn't a plain
// file name (so an application name never leads out of the vendor folder). The
// cache paths below are then empty as well, as they are for a subfolder or stem that
// isn't plain.
std::u16string GetProductDataDirectory(const std::string& app_name);

// <product data>/cacheData/<subfolder>/, with the final separator, as UTF-8.
std::string GetCacheDirectory(const std::u16string& subfolder, const std::string& app_name);
// <product data>/cacheData/tdoc.dat, as UTF-8.
std::string GetCacheMarkerPath(const std::string& app_name);
// <product data>/cacheData/<stem>.dat, as UTF-8.
std::string GetCacheFilePath(const std::u16string& stem, const std::string& app_name);

}  // namespace tpcsdk
