// Fuzz target for the Linux registry's JSON hives: the input is written as the current
// user's hive, and every key it names is opened, its values enumerated and read with
// buffers of every interesting size; then one value is written, which must leave a
// hive that doesn't parse alone.
#include <stdlib.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <json/json.h>

#include "os/registry.h"
#include "support/utf.h"

namespace {

using namespace tpcsdk::os;

const std::string& HiveDir() {
  static const std::string dir = [] {
    char name[] = "/tmp/fuzz_json_hive.XXXXXX";
    const char* made = mkdtemp(name);
    const std::string d = made ? made : "/tmp";
    setenv(kRegistryDirVariable, d.c_str(), 1);
    return d;
  }();
  return dir;
}

void ReadKey(const std::u16string& path) {
  RegKey key = OpenRegKey(RegRoot::kCurrentUser, path);
  if (!key) return;
  uint32_t count = 0;
  (void)QueryRegValueCount(key, count);
  for (uint32_t i = 0; i <= count && i < 64; ++i) {
    std::u16string name;
    uint32_t type = 0, need = 0;
    if (EnumRegValue(key, i, name, 256, &type, nullptr, &need) != RegStatus::kOk) continue;
    for (uint32_t size : {0u, need / 2, need}) {
      std::vector<uint8_t> buffer(size + 1);
      uint32_t got = size;
      const RegStatus status = QueryRegValue(key, name, &type, buffer.data(), &got);
      if (status == RegStatus::kOk && got > size) __builtin_trap();
      if (status == RegStatus::kMoreData && got <= size) __builtin_trap();
    }
    std::u16string text;
    (void)QueryRegString(key, name, text);
    uint32_t dword = 0;
    (void)QueryRegDword(key, name, dword);
  }
  RegKey child = OpenRegKey(key, u"");
  CloseRegKey(child);
  CloseRegKey(key);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string file = HiveDir() + "/user.json";
  std::FILE* f = std::fopen(file.c_str(), "wb");
  if (!f) return 0;
  std::fwrite(data, 1, size, f);
  std::fclose(f);

  const std::string text(reinterpret_cast<const char*>(data), size);
  Json::Value doc;
  Json::CharReaderBuilder builder;
  std::string errors;
  bool parsed = false;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  try {
    parsed = reader->parse(text.data(), text.data() + text.size(), &doc, &errors) && doc.isObject();
  } catch (...) {
  }
  ReadKey(u"");
  if (parsed) {
    size_t keys = 0;
    for (const std::string& name : doc.getMemberNames()) {
      if (++keys > 16) break;
      ReadKey(tpcsdk::Utf8ToUtf16(name));
    }
  }

  RegKey key = CreateRegKey(RegRoot::kCurrentUser, u"Fuzz\\Key");
  const bool written = key && SetRegString(key, u"v", u"text");
  CloseRegKey(key);
  if (written && !parsed && size != 0) __builtin_trap();  // a hive that doesn't parse is never written over
  return 0;
}
