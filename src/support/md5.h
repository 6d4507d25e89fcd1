// MD5 message digest over any number of updates, with a lower-case hexadecimal result.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>

namespace tpcsdk {

struct Md5Context {
  std::uint64_t bit_count = 0;     // message length so far, in bits
  std::uint32_t state[4] = {};     // A, B, C, D
  std::uint8_t buffer[64] = {};    // the block being filled
  std::uint8_t digest[16] = {};    // valid once finished is set
  bool finished = false;
};

// Sets the four state words to their standard initial values and clears the rest.
void Md5Init(Md5Context& context);

// Adds bytes to the message. Ignored once the digest has been finished; a null
// pointer adds nothing.
void Md5Update(Md5Context& context, const void* bytes, std::size_t length);

// Finishes the digest on the first call and returns it as 32 lower-case hexadecimal
// digits, high nibble first. Asking again gives the same text.
std::string Md5HexDigest(Md5Context& context);

// One-shot digest of a byte string.
std::string Md5Hex(const std::string& bytes);

}  // namespace tpcsdk
