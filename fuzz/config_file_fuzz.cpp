// Fuzz target for the configuration file: the input is written as the file, loaded,
// and every key the module reads is taken, as the platform's readers do.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include <json/json.h>

#include "platform/config_file.h"
#include "support/utf.h"

namespace {

std::u16string FilePath() {
  static const std::u16string path = [] {
    char name[] = "/tmp/fuzz_config_file.XXXXXX";
    const int fd = mkstemp(name);
    if (fd >= 0) close(fd);
    return tpcsdk::Utf8ToUtf16(name);
  }();
  return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::u16string path = FilePath();
  std::FILE* f = std::fopen(tpcsdk::Utf16ToUtf8(path).c_str(), "wb");
  if (!f) return 0;
  std::fwrite(data, 1, size, f);
  std::fclose(f);

  tpcsdk::ConfigFile file;
  if (file.Load(path) != tpcsdk::ConfigFile::Status::Read) __builtin_trap();
  if (size == 0 && file.HasKeys()) __builtin_trap();
  for (const char* key : {"env", "upd", "logfile", "appType", "tDocDomain", "Test", ""}) {
    try {
      (void)file.Take(key).size();
    } catch (const Json::LogicError&) {
      // An array or object member: the slot that reads it fails as a whole.
    }
  }
  return 0;
}
