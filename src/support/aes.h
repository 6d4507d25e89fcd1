// AES with a 128-bit key (10 rounds) on single 16-byte blocks. No chaining mode,
// no initial vector and no padding: callers that need more build it themselves.
#pragma once
#include <cstdint>

namespace tpcsdk {

class AES {
 public:
  static constexpr int kBlockSize = 16;
  static constexpr int kRounds = 10;

  // Expands the 16-byte key into the 11 round keys.
  explicit AES(const std::uint8_t key[kBlockSize]);
  virtual ~AES();
  AES(const AES&) = default;
  AES& operator=(const AES&) = default;

  // Enciphers one block in place and returns the address it was given.
  std::uint8_t* Encipher(std::uint8_t* block) const;
  // Deciphers one block in place and returns the address it was given.
  std::uint8_t* Decipher(std::uint8_t* block) const;

 private:
  std::uint8_t round_keys_[kRounds + 1][kBlockSize];
};

}  // namespace tpcsdk
