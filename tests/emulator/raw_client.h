// A bare TCP client for looking at the emulator's replies byte by byte.
#pragma once
#include <functional>
#include <string>

namespace emulator_test {

class RawClient {
 public:
  // Connects to "http://host:port"; check ok().
  explicit RawClient(const std::string& base_url);
  ~RawClient();
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  bool ok() const { return fd_ >= 0; }
  bool Send(const std::string& bytes);
  // Sends "METHOD target HTTP/1.1" with Host and Content-Length.
  bool SendRequest(const std::string& method, const std::string& target,
                   const std::string& body = "");

  // Reads until `pattern` is in the buffer, or the peer closes, or `bound_ms` passes.
  bool ReadUntil(const std::string& pattern, int bound_ms = 10000);
  // Reads until the peer closes or resets; true when it did within the bound.
  bool ReadToEnd(int bound_ms = 10000);
  // Reads until the bytes from `from` on hold one whole reply, and splits it.
  bool ReadReply(size_t from, std::string* head, std::string* body, int* status,
                 int bound_ms = 10000);
  // True when no byte is waiting right now (nothing sent yet).
  bool NothingPending();

  // Everything received so far, and how the stream ended.
  const std::string& data() const { return data_; }
  bool closed() const { return closed_; }  // orderly end of stream
  bool reset() const { return reset_; }    // ECONNRESET
  void Close();

 private:
  bool ReadSome(int bound_ms);
  // Reads while `more` holds, within the bound; true when it stopped holding.
  bool ReadWhile(const std::function<bool()>& more, int bound_ms);
  int fd_ = -1;
  std::string host_;
  std::string data_;
  bool closed_ = false;
  bool reset_ = false;
};

// Splits a complete reply in `raw` (Content-Length or chunked) into its head
// and decoded body; false when `raw` is not one whole reply.
bool SplitReply(const std::string& raw, std::string* head, std::string* body, int* status);

}  // namespace emulator_test
