// The conveniences of the registry seam, on top of each backend's raw reads.
#include <cstring>
#include <vector>

#include "os/registry.h"

namespace tpcsdk::os {

bool QueryRegValueInfo(RegKey key, std::u16string_view name, uint32_t* type, uint32_t* size) {
  return QueryRegValue(key, name, type, nullptr, size) == RegStatus::kOk;
}

bool QueryRegString(RegKey key, std::u16string_view name, std::u16string& out) {
  // The value may change between the size query and the read; a few rounds settle it.
  for (int round = 0; round < 4; ++round) {
    uint32_t size = 0;
    if (QueryRegValue(key, name, nullptr, nullptr, &size) != RegStatus::kOk) return false;
    std::vector<char16_t> buf(size / 2 + 2, u'\0');
    uint32_t got = static_cast<uint32_t>(buf.size() * sizeof(char16_t));
    RegStatus st = QueryRegValue(key, name, nullptr, buf.data(), &got);
    if (st == RegStatus::kMoreData) continue;
    if (st != RegStatus::kOk) return false;
    size_t chars = got / 2;
    size_t n = 0;
    while (n < chars && buf[n] != u'\0') ++n;
    out.assign(buf.data(), n);
    return true;
  }
  return false;
}

bool QueryRegDword(RegKey key, std::u16string_view name, uint32_t& out) {
  unsigned char bytes[4] = {0, 0, 0, 0};
  uint32_t size = sizeof(bytes);
  if (QueryRegValue(key, name, nullptr, bytes, &size) != RegStatus::kOk) return false;
  out = static_cast<uint32_t>(bytes[0]) | static_cast<uint32_t>(bytes[1]) << 8 |
        static_cast<uint32_t>(bytes[2]) << 16 | static_cast<uint32_t>(bytes[3]) << 24;
  return true;
}

}  // namespace tpcsdk::os
