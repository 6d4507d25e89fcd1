// Blocking HTTP GET for file downloads: a path of its own, apart from the asynchronous
// seam of os/http.h. It takes the user's proxy settings, follows every redirect (HTTPS
// to HTTP included), allows HTTP/2 and validates server certificates as the platform
// does by default. The caller pulls the body the way WinHTTP's synchronous mode hands
// it out: ask what is available, read it, until 0.
//
// Windows: WinHTTP in synchronous mode (redirect policy "always", HTTP/2 enabled).
// Linux: libcurl driven on the calling thread; received bytes wait in a bounded buffer
// and the transfer pauses while it is full. Timeouts: connect 60 s (name resolution
// included), then 30 s without a byte arriving.
#pragma once
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace tpcsdk::os {

class HttpBlockingGet {
 public:
  HttpBlockingGet();
  ~HttpBlockingGet();
  HttpBlockingGet(const HttpBlockingGet&) = delete;
  HttpBlockingGet& operator=(const HttpBlockingGet&) = delete;

  // Sends "GET path" to host:port (TLS when secure) and waits for the final response's
  // headers. `path` goes on the request line as given. False on failure, with the
  // reason in HttpLastError() (os/http.h numbers).
  bool Open(std::u16string_view agent, bool secure, std::u16string_view host, uint16_t port,
            std::u16string_view path);
  // The final response's status; 0 before Open succeeded.
  uint32_t Status() const;
  // The value of a response header; false when the response has none.
  bool Header(std::u16string_view name, std::u16string* value) const;
  // Waits until body bytes are there and reports how many; 0 at the end of the body.
  bool QueryDataAvailable(uint32_t* available);
  // Copies up to `size` bytes (waiting for some when none are there); 0 at the end.
  bool Read(void* buffer, uint32_t size, uint32_t* read);

  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace tpcsdk::os
