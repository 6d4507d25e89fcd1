// Fuzz target for the reader of the API directory the service sends: the URL table,
// its count and the twsConfig member, and every URL of the table as the frame uses it.
#include <cstddef>
#include <cstdint>
#include <string>

#include "web_service/api_directory.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  tpcsdk::ApiTable table;
  table[u"url@left"] = u"over";
  const tpcsdk::ApiDirectoryStatus status = tpcsdk::ReadApiDirectory(text, table);
  switch (status) {
    case tpcsdk::ApiDirectoryStatus::kNotJson:
      // A text that doesn't parse leaves the table as it was.
      if (table.size() != 1) __builtin_trap();
      break;
    case tpcsdk::ApiDirectoryStatus::kSizeMismatch:
      if (!table.empty()) __builtin_trap();
      break;
    default:
      for (const auto& [key, url] : table)
        if (key.compare(0, 4, u"url@") != 0 || url.size() > text.size()) __builtin_trap();
      break;
  }
  return 0;
}
