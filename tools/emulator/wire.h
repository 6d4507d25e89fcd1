// Byte-level helpers of the emulator: HTTP/1.1 request parsing, percent
// decoding, base64 and UTF-8 checks. No sockets here, so the parser can be fed
// from any stream.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace tpcsdk::emulator {

using HeaderList = std::vector<std::pair<std::string, std::string>>;

// One request as it came over the wire.
struct Request {
  std::string method;
  std::string target;   // raw request target, exactly as on the wire
  std::string path;     // raw path part of the target (before '?')
  std::string query;    // raw query (after the first '?'), may be empty
  bool has_query = false;
  std::string version;  // "HTTP/1.1"
  HeaderList headers;   // in arrival order, names as sent
  std::string body;     // de-chunked body bytes
  bool tls = false;
  int64_t time_ms = 0;  // milliseconds since the emulator started
  int64_t unix_ms = 0;  // wall clock
  uint64_t seq = 0;
  std::string listener;  // base URL of the listener that took it
  std::string peer;

  // First header of that name (case-insensitive), or nullptr.
  const std::string* Header(const std::string& name) const;
  // The path percent-decoded.
  std::string DecodedPath() const;
};

// One reply as the server writes it.
struct Reply {
  int status = 200;
  HeaderList headers;
  std::string body;
  int pace_ms = 0;       // > 0: the body goes out in pieces with this pause between them
  bool chunked = false;  // the body goes out in chunked transfer coding, without a length
};

// Result of looking at the bytes of a request head.
enum class HeadStatus { kIncomplete, kComplete, kBad };

// Looks for the end of the request head ("\r\n\r\n", or "\n\n") in `buf`.
// On kComplete `head_len` is the length including the blank line.
HeadStatus FindHeadEnd(const std::string& buf, size_t* head_len);

// Parses a request line and header block. The request line may hold blanks in
// its target: the method ends at the first blank, the version starts after the
// last one.
bool ParseHead(const std::string& head, Request* req, std::string* error);

// How the body of a parsed head is framed.
struct BodyFraming {
  bool chunked = false;
  uint64_t length = 0;  // for !chunked
};
bool GetBodyFraming(const Request& req, BodyFraming* framing, std::string* error);

// Incremental decoder of a chunked body. Feed it bytes; it reports how many it
// consumed and whether the body (with its trailers) is complete.
class ChunkedDecoder {
 public:
  // Consumes from `data`; returns false on malformed framing.
  bool Feed(const char* data, size_t len, size_t* consumed);
  bool done() const { return state_ == State::kDone; }
  std::string& body() { return body_; }

 private:
  enum class State { kSize, kData, kDataEnd, kTrailer, kDone };
  State state_ = State::kSize;
  std::string line_;
  uint64_t remaining_ = 0;
  std::string body_;
};

std::string PercentDecode(const std::string& s);
// The percent-decoded value of the first query field `name`; empty when absent.
std::string QueryParam(const Request& req, const std::string& name);
bool EqualsNoCase(const std::string& a, const std::string& b);
// `s` with every `from` replaced by `to`.
std::string ReplaceAll(std::string s, const std::string& from, const std::string& to);
std::string Base64Encode(const std::string& bytes);
// False on characters outside the alphabet (whitespace is skipped).
bool Base64Decode(const std::string& text, std::string* bytes);
// True when `s` is well-formed UTF-8 without zero bytes.
bool IsCleanUtf8(const std::string& s);
// `s` with every malformed UTF-8 sequence replaced by U+FFFD.
std::string SanitizeUtf8(const std::string& s);
std::string ReasonPhrase(int status);

}  // namespace tpcsdk::emulator
