// Fuzz target for URL cracking as the HTTP seam does it, and for the response head
// the libcurl client gathers from a server: the input is a URL (as UTF-8 and as raw
// 16-bit units) and the same bytes as header lines.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "os/http.h"
#include "os/posix/http_text.h"
#include "support/utf.h"

namespace {

void Crack(std::u16string_view url) {
  for (const bool decode : {false, true}) {
    for (const uint32_t capacity : {1u, 8u, 1024u}) {
      tpcsdk::os::HttpUrlParts parts;
      if (!tpcsdk::os::HttpCrackUrl(url, decode, &parts, capacity)) continue;
      if (parts.scheme != tpcsdk::os::kHttpSchemeHttp && parts.scheme != tpcsdk::os::kHttpSchemeHttps)
        __builtin_trap();
      for (const std::u16string* s : {&parts.scheme_name, &parts.host, &parts.user, &parts.password,
                                      &parts.path, &parts.extra})
        if (s->size() >= capacity || s->size() > url.size()) __builtin_trap();
    }
  }
}

void Head(std::string_view text) {
  tpcsdk::os::curlhttp::HeaderFields fields;
  (void)tpcsdk::os::curlhttp::ParseHeaderLines(text, &fields);
  tpcsdk::os::curlhttp::ResponseHead head;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    end = end == std::string_view::npos ? text.size() : end + 1;
    if (head.Add(text.substr(start, end - start))) break;
    start = end;
  }
  std::string value;
  (void)head.Find("Content-Length", 1, &value);
  (void)head.Value("location");
  (void)head.Fields();
  (void)tpcsdk::os::curlhttp::IsRedirectStatus(head.status);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  Crack(tpcsdk::Utf8ToUtf16(text));
  std::u16string units(size / 2, u'\0');
  for (size_t i = 0; i < units.size(); ++i)
    units[i] = static_cast<char16_t>(data[2 * i] | (data[2 * i + 1] << 8));
  Crack(units);
  Head(text);
  return 0;
}

namespace tpcsdk::os {
// The libcurl client keeps the seam's last error; cracking alone only sets it here.
void HttpSetLastErrorInternal(uint32_t error) {
  if (error == 0) __builtin_trap();  // a failure always names its error
}
}  // namespace tpcsdk::os
