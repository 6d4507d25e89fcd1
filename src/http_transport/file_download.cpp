// The blocking file download: the seam's GET, pulled the way a synchronous HTTP
// client hands the body out, into a ".part" file that is moved into place at the end.
#include "http_transport/file_download.h"

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "os/download_target.h"
#include "os/http.h"
#include "os/http_download.h"
#include "support/utf.h"

namespace tpcsdk {

namespace {

constexpr char16_t kAgent[] = u"WindowsGet/1.0";
constexpr char16_t kPartSuffix[] = u".part";
constexpr uint32_t kReadBuffer = 16384;
constexpr uint32_t kLengthHeaderChars = 72 / sizeof(char16_t);

// The leading decimal number of a header value, as a 64-bit count: 0 when there is
// none, the largest count for a longer run of digits. *valid tells whether the whole
// value was that number.
int64_t LeadingNumber(std::u16string_view text, bool* valid) {
  size_t i = 0;
  while (i < text.size() && (text[i] == u' ' || text[i] == u'\t')) ++i;
  int64_t value = 0;
  const size_t start = i;
  for (; i < text.size() && text[i] >= u'0' && text[i] <= u'9'; ++i) {
    const int digit = text[i] - u'0';
    if (value > (INT64_MAX - digit) / 10) {
      *valid = false;
      return INT64_MAX;
    }
    value = value * 10 + digit;
  }
  *valid = i > start && i == text.size();
  return value;
}

void PrintFileSize(int64_t size) {
  const std::string line = "File size: " + std::to_string(size) + "\n";
  std::fputs(line.c_str(), stdout);
  std::fflush(stdout);
}

// Copies the body into target: ask what is available, read it in pieces of at most
// the buffer's size, write exactly what was read, until nothing more is available.
// The byte count is added to *total. False when a read or a write fails.
bool CopyBody(os::HttpBlockingGet& get, os::DownloadTarget& target, std::vector<char>& buffer,
              uint64_t* total) {
  for (;;) {
    uint32_t available = 0;
    if (!get.QueryDataAvailable(&available)) return false;
    if (available == 0) return true;
    uint32_t remainder = available;
    while (remainder > 0) {
      uint32_t read = 0;
      const uint32_t want = remainder < kReadBuffer ? remainder : kReadBuffer;
      if (!get.Read(buffer.data(), want, &read) || read == 0 || read > want) return false;
      if (!target.Write(buffer.data(), read)) return false;
      remainder -= read;
      *total += read;
    }
  }
}

}  // namespace

bool DownloadFile(std::u16string_view url, std::u16string_view destination) {
  os::DownloadTarget target;
  try {
    if (destination.empty() || url.size() >= UINT32_MAX) return false;
    os::HttpUrlParts parts;
    // Every component fits a buffer as long as the whole URL.
    if (!os::HttpCrackUrl(url, false, &parts, static_cast<uint32_t>(url.size() + 1))) return false;

    os::HttpBlockingGet get;
    // The path alone: the query and fragment of the URL are not sent.
    if (!get.Open(kAgent, parts.scheme == os::kHttpSchemeHttps, parts.host, parts.port,
                  parts.path)) {
      return false;
    }
    const uint32_t status = get.Status();
    if (status != 200 && status != 201) return false;

    // A value that would not fit the length buffer counts as a header that is not there.
    std::u16string length_text;
    bool length_valid = false;
    int64_t length = 0;
    if (get.Header(u"Content-Length", &length_text) && length_text.size() < kLengthHeaderChars) {
      length = LeadingNumber(length_text, &length_valid);
    }
    PrintFileSize(length);

    const std::u16string final_path(destination);
    const std::u16string part_path = final_path + kPartSuffix;
    std::vector<char> buffer(kReadBuffer);
    if (!target.Open(part_path)) return false;
    uint64_t total = 0;
    // A body cut short by the connection counts as a failure even where the transport
    // does not report it: a stated length must be met exactly.
    const bool whole = CopyBody(get, target, buffer, &total) &&
                       (!length_valid || total == static_cast<uint64_t>(length));
    if (!whole || !target.CommitAs(final_path)) {
      target.Discard();
      return false;
    }
    return true;
  } catch (...) {
    try {
      target.Discard();
    } catch (...) {
    }
    return false;
  }
}

}  // namespace tpcsdk
