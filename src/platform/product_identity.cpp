#include "platform/product_identity.h"

#include <vector>

#include "os/paths.h"
#include "support/text.h"
#include "support/utf.h"

namespace tpcsdk {

// 262 entries; the capital in "Asia" is as it stands, the comparison ignores case.
const char16_t RootDomainSuffixes[] =
    u"||co.kr|co.jp|co.cn|com.cn|net.cn|org.cn|gov.cn|com.hk|公司|中国|网络|com|net|org|int|edu|"
    u"gov|mil|arpa|Asia|biz|info|name|pro|coop|aero|museum|ac|ad|ae|af|ag|ai|al|am|an|ao|"
    u"aq|ar|as|at|au|aw|az|ba|bb|bd|be|bf|bg|bh|bi|bj|bm|bn|bo|br|bs|bt|bv|bw|by|bz|ca|"
    u"cc|cf|cg|ch|ci|ck|cl|cm|cn|co|cq|cr|cu|cv|cx|cy|cz|de|dj|dk|dm|do|dz|ec|ee|eg|eh|"
    u"es|et|ev|fi|fj|fk|fm|fo|fr|ga|gb|gd|ge|gf|gh|gi|gl|gm|gn|gp|gr|gt|gu|gw|gy|hk|hm|"
    u"hn|hr|ht|hu|id|ie|il|in|io|iq|ir|is|it|jm|jo|jp|ke|kg|kh|ki|km|kn|kp|kr|kw|ky|kz|"
    u"la|lb|lc|li|lk|lr|ls|lt|lu|lv|ly|ma|mc|md|me|mg|mh|ml|mm|mn|mo|mp|mq|mr|ms|mt|mv|"
    u"mw|mx|my|mz|na|nc|ne|nf|ng|ni|nl|no|np|nr|nt|nu|nz|om|pa|pe|pf|pg|ph|pk|pl|pm|pn|"
    u"pr|pt|pw|py|qa|re|ro|ru|rw|sa|sb|sc|sd|se|sg|sh|si|sj|sk|sl|sm|sn|so|sr|st|su|sy|"
    u"sz|tc|td|tf|tg|th|tj|tk|tm|tn|to|tp|tr|tt|tv|tw|tz|ua|ug|uk|us|uy|va|vc|ve|vg|vn|"
    u"vu|wf|ws|ye|yu|za|zm|zr|zw|";

namespace {

constexpr size_t kDirectoryPathLimit = 259;

std::vector<std::u16string_view> Split(std::u16string_view text, char16_t sep, bool keep_empty) {
  std::vector<std::u16string_view> parts;
  size_t start = 0;
  for (;;) {
    const size_t end = text.find(sep, start);
    const std::u16string_view part =
        text.substr(start, end == std::u16string_view::npos ? std::u16string_view::npos : end - start);
    if (keep_empty || !part.empty()) parts.push_back(part);
    if (end == std::u16string_view::npos) break;
    start = end + 1;
  }
  return parts;
}

const std::vector<std::u16string_view>& SuffixList() {
  static const std::vector<std::u16string_view> list = Split(RootDomainSuffixes, u'|', false);
  return list;
}

bool IsKnownSuffix(std::u16string_view candidate) {
  for (const auto& entry : SuffixList()) {
    if (EqualsNoCase(candidate, entry)) return true;
  }
  return false;
}

struct FolderRule {
  const char* contains;
  const char* folder;
};

// Older product names first in their long service form, then the short form.
constexpr FolderRule kFolderRules[] = {
    {"Tarvo BrindlePDF(tDoc) windows Service", "Tarvo PDF Editor(tDoc) windows Service"},
    {"Tarvo Reader(tDoc) windows Service", "Tarvo PDF Reader(tDoc) windows Service"},
    {"Tarvo BrindlePDF", "Tarvo PDF Editor"},
    {"Tarvo Reader", "Tarvo PDF Reader"},
};

// Empty when the application-data folder is unknown, so nothing lands at the root.
std::u16string CacheDataDirectory(const std::string& app_name) {
  std::u16string dir = GetProductDataDirectory(app_name);
  if (dir.empty()) return dir;
  dir += os::kPathSeparator;
  dir += u"cacheData";
  EnsureDirectory(dir);
  return dir;
}

}  // namespace

bool IsRootDomain(std::u16string_view text) {
  const auto labels = Split(text, u'.', true);
  if (labels.size() < 2) return false;
  std::u16string last_two(labels[labels.size() - 2]);
  last_two += u'.';
  last_two += labels.back();
  return IsKnownSuffix(last_two) || IsKnownSuffix(labels.back());
}

bool IsValidHostString(std::u16string_view text) {
  if (os::PathIsUrl(text)) return true;
  std::u16string_view head;
  const size_t slash = text.find(u'/');
  if (slash != std::u16string_view::npos && slash != 0) head = text.substr(0, slash);
  if (!IsRootDomain(text) && !IsRootDomain(head)) return os::PathIsUnc(text) || os::IsFileUrl(text);
  std::u16string with_scheme = u"http://";
  with_scheme += text;
  return os::PathIsUrl(with_scheme);
}

std::string GetAppFolderName(const std::string& name) {
  for (const auto& rule : kFolderRules) {
    if (name.find(rule.contains) != std::string::npos) return rule.folder;
  }
  return name;
}

ProductKind LogProductKind(std::u16string_view app_type) {
  if (!app_type.empty())
    return app_type.find(u"Brindle") != std::u16string_view::npos ? ProductKind::Editor : ProductKind::Reader;
  const std::u16string dir = os::ModuleDirectory();
  if (dir.empty()) return ProductKind::Reader;
  return os::PathExists(dir + os::kPathSeparator + u"TarvoPDFEditor.exe") ? ProductKind::Editor
                                                                          : ProductKind::Reader;
}

bool IsDirectory(const std::u16string& path) {
  std::u16string copy = path.substr(0, kDirectoryPathLimit);
  if (copy.size() > 1 && copy.back() == os::kPathSeparator) copy.pop_back();
  return os::IsDirectory(copy);
}

void EnsureDirectory(const std::u16string& path) {
  if (IsDirectory(path)) return;
  if (os::MakeDirectory(path)) os::SetNormalAttributes(path);
}

bool IsPlainFileName(std::u16string_view name) {
  if (name.empty() || name == u"." || name == u"..") return false;
  for (char16_t c : name) {
    if (c < 0x20 || c == 0x7F) return false;
    if (std::u16string_view(u"/\\:*?\"<>|").find(c) != std::u16string_view::npos) return false;
  }
  return true;
}

std::u16string GetProductDataDirectory(const std::string& app_name) {
  const std::u16string folder = Utf8ToUtf16(GetAppFolderName(app_name));
  if (!IsPlainFileName(folder)) return std::u16string();
  std::u16string dir = os::AppDataDirectory();
  if (dir.empty()) return dir;
  EnsureDirectory(dir);
  dir += os::kPathSeparator;
  dir += kVendorFolder;
  EnsureDirectory(dir);
  dir += os::kPathSeparator;
  dir += folder;
  EnsureDirectory(dir);
  return dir;
}

std::string GetCacheDirectory(const std::u16string& subfolder, const std::string& app_name) {
  if (!IsPlainFileName(subfolder)) return std::string();
  std::u16string dir = CacheDataDirectory(app_name);
  if (dir.empty()) return std::string();
  dir += os::kPathSeparator;
  dir += subfolder;
  dir += os::kPathSeparator;
  EnsureDirectory(dir);
  return Utf16ToUtf8(dir);
}

std::string GetCacheMarkerPath(const std::string& app_name) {
  std::u16string path = CacheDataDirectory(app_name);
  if (path.empty()) return std::string();
  path += os::kPathSeparator;
  path += u"tdoc.dat";
  return Utf16ToUtf8(path);
}

std::string GetCacheFilePath(const std::u16string& stem, const std::string& app_name) {
  if (!IsPlainFileName(stem + u".dat")) return std::string();
  std::u16string path = CacheDataDirectory(app_name);
  if (path.empty()) return std::string();
  path += os::kPathSeparator;
  path += stem;
  path += u".dat";
  return Utf16ToUtf8(path);
}

}  // namespace tpcsdk
