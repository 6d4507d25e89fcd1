#include "platform/config_file.h"

#include <cstdio>
#include <limits>
#include <memory>
#include <new>

#include "os/paths.h"
#include "support/utf.h"

namespace tpcsdk {
namespace {

std::u16string BesideModule(const char16_t* name) {
  std::u16string path = os::ModuleDirectory();
  path += os::kPathSeparator;
  path += name;
  return path;
}

struct FileCloser {
  void operator()(std::FILE* f) const { std::fclose(f); }
};

}  // namespace

std::u16string ConfigFilePath() { return BesideModule(kConfigFileName); }
std::u16string LoggingMarkerPath() { return BesideModule(kLoggingMarkerName); }

ConfigFile::Status ConfigFile::Load(const std::u16string& path) {
  root_ = Json::Value();
  has_keys_ = false;
  std::unique_ptr<std::FILE, FileCloser> file(os::OpenStdioFile(path, "rb"));
  if (!file) return Status::NotOpened;

  // The size is a 32-bit count: a file too large for it can't be held.
  if (std::fseek(file.get(), 0, SEEK_END) != 0) return Status::Read;
  const long end = std::ftell(file.get());
  if (end == 0) return Status::Read;
  if (end < 0 || end > std::numeric_limits<std::int32_t>::max()) return Status::NoMemory;
  const auto size = static_cast<size_t>(end);

  std::unique_ptr<char[]> buffer(new (std::nothrow) char[size]);
  if (!buffer) return Status::NoMemory;
  std::rewind(file.get());
  const size_t got = std::fread(buffer.get(), 1, size, file.get());
  const std::string text(buffer.get(), got);
  buffer.reset();

  Json::Value root;
  Json::Reader reader;
  if (reader.parse(text, root, false) && root.isObject()) {
    root_ = std::move(root);
    has_keys_ = true;
  }
  return Status::Read;
}

std::u16string ConfigFile::Take(const char* key) const {
  if (!has_keys_) return std::u16string();
  const Json::Value* member = root_.find(key, key + std::char_traits<char>::length(key));
  if (!member) return std::u16string();
  return Utf8ToUtf16(member->asString());
}

}  // namespace tpcsdk
