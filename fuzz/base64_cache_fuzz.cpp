// Fuzz target for the API directory's disk cache: the base64 decoder on its own, and
// the whole cache record (base64, cipher, JSON, digest and age checks). The first byte
// picks which; the rest is the text read from the file.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include <json/json.h>

#include "support/base64.h"
#include "web_service/api_directory.h"

namespace {

const std::string kNow = "2026-01-02 03:04:05";

void Base64(const std::string& text) {
  const std::string decoded = tpcsdk::Base64Decode(text.data(), static_cast<int32_t>(text.size()));
  // Four characters give at most three bytes, a partial group included.
  if (decoded.size() > (text.size() + 3) / 4 * 3) __builtin_trap();
  // Whatever the decoder made, the encoder's text of it decodes back to the same bytes.
  const std::string encoded = tpcsdk::Base64Encode(decoded.data(), static_cast<int32_t>(decoded.size()));
  if (tpcsdk::Base64Decode(encoded.data(), static_cast<int32_t>(encoded.size())) != decoded) __builtin_trap();
  // So does the input itself, taken as bytes.
  const std::string again = tpcsdk::Base64Encode(text.data(), static_cast<int32_t>(text.size()));
  if (tpcsdk::Base64Decode(again.data(), static_cast<int32_t>(again.size())) != text) __builtin_trap();
}

void CacheRecord(const std::string& text) {
  const auto now = [] { return kNow; };
  const std::string api = tpcsdk::ReadCacheRecord(text, now);
  if (!api.empty() && api.back() != '\n') __builtin_trap();
  (void)tpcsdk::IsCacheFresh(text, kNow);
  (void)tpcsdk::IsCacheFresh(kNow, text);

  // The input as a directory text: a record written for it reads back as its compact
  // text with cacheTime, unless the cipher put a zero byte in the record.
  const std::string record = tpcsdk::WriteCacheRecord(u"https://h.example", text, kNow);
  if (record.empty()) return;
  const std::string read = tpcsdk::ReadCacheRecord(record, now);
  if (read.empty()) return;
  Json::Value root;
  if (!Json::Reader().parse(text, root, false) || !root.isObject()) __builtin_trap();
  root["cacheTime"] = kNow;
  if (read != Json::FastWriter().write(root)) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
  if (data[0] & 1)
    CacheRecord(text);
  else
    Base64(text);
  return 0;
}
