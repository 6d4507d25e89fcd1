// What the two libcurl paths of the HTTP seam (the asynchronous client and the blocking
// download) share: header text, proxy lists, checked option setting, and the one
// mapping from libcurl's results to the seam's error numbers.
#pragma once
#include <curl/curl.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tpcsdk::os::curlhttp {

// Without blanks and tabs on both sides (and line ends at the back).
std::string_view TrimBlanks(std::string_view s);

using HeaderFields = std::vector<std::pair<std::string, std::string>>;

// Header lines "Name: value" separated by LF or CR LF; empty lines are skipped.
// False when a line has no name.
bool ParseHeaderLines(std::string_view text, HeaderFields* out);

// One response's head, gathered from libcurl's header callback a line at a time.
struct ResponseHead {
  std::string text;  // status line and header lines, each ending CR LF
  long status = 0;

  // Takes one line as libcurl hands it over; true when it was the empty line that ends
  // the head. A status line starts a new head.
  bool Add(std::string_view line);
  // The index-th value (from 0) of a header; false when there are fewer.
  bool Find(std::string_view name, uint32_t index, std::string* value) const;
  std::string Value(std::string_view name) const;
  // The header lines as name and value pairs, status line left out.
  HeaderFields Fields() const;
};

bool IsRedirectStatus(long status);

// A proxy list in WinHTTP's form: entries "[scheme=][scheme://]host[:port]" separated by
// ';' or blanks; an entry without "scheme=" serves both schemes.
void ParseProxyList(std::string_view list, std::string* http, std::string* https);
// A bypass list: entries separated by ';', ',' or blanks.
std::vector<std::string> ParseBypassList(std::string_view list);
// A bypass entry matches the host itself or, as a domain ("example.com", ".example.com"
// or "*.example.com"), any name under it; "<local>" matches names without a dot; "*"
// matches every host.
bool Bypassed(const std::vector<std::string>& bypass, std::string_view host);

// Sets libcurl options one after the other and keeps the first refusal, so a chain of
// settings is checked once at its end.
class CurlOptions {
 public:
  explicit CurlOptions(CURL* easy) : easy_(easy) {}
  template <class T>
  CurlOptions& Set(CURLoption option, T value) {
    if (result_ == CURLE_OK) result_ = curl_easy_setopt(easy_, option, value);
    return *this;
  }
  CURLcode result() const { return result_; }

 private:
  CURL* easy_;
  CURLcode result_ = CURLE_OK;
};

// Received body bytes waiting for the reader. It is bounded: a write that finds it
// full asks libcurl to pause the transfer, and the transfer goes on once the reader has
// taken half of it, so a slow reader does not grow memory.
class BodyBuffer {
 public:
  static constexpr size_t kCap = 256 * 1024;
  size_t Size() const { return bytes_.size() - head_; }
  bool Full() const { return Size() >= kCap; }
  bool Drained() const { return Size() < kCap / 2; }
  void Append(const char* data, size_t n);
  // Copies up to `max` bytes to `out`; the count copied.
  size_t Take(void* out, size_t max);
  // Drops what waits, memory included.
  void Clear();

 private:
  std::string bytes_;
  size_t head_ = 0;  // the first byte not yet taken
};

// libcurl's global state, set up once for both paths and given back at the module's end.
bool CurlGlobalInit();
void CurlGlobalCleanup();

// The seam's error number (os/http.h) for a libcurl result other than CURLE_OK.
uint32_t HttpErrorFromCurl(CURLcode code);

}  // namespace tpcsdk::os::curlhttp
