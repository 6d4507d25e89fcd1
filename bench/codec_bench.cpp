// Base64 (both ways) and MD5 over 1 MiB of bytes, ours beside OpenSSL's libcrypto on
// the same buffer; MD5 and AES also at the sizes the module uses them. Our text has a
// line break after every 76 characters; OpenSSL's block functions take none, so each
// side decodes its own text of the same bytes.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <cstdint>
#include <string>

#include "support/aes.h"
#include "support/base64.h"
#include "support/md5.h"

namespace {

const std::string& Bytes() {
  static const std::string bytes = [] {
    std::string b(1u << 20, '\0');
    uint32_t x = 2463534242u;
    for (char& c : b) {
      x ^= x << 13;
      x ^= x >> 17;
      x ^= x << 5;
      c = static_cast<char>(x);
    }
    return b;
  }();
  return bytes;
}

const std::string& Text() {
  static const std::string text =
      tpcsdk::Base64Encode(Bytes().data(), static_cast<int32_t>(Bytes().size()));
  return text;
}

// The same bytes without line breaks, which is what OpenSSL's block decoder reads.
const std::string& PlainText() {
  static const std::string text = [] {
    const std::string& b = Bytes();
    std::string t(4 * ((b.size() + 2) / 3) + 1, '\0');
    const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(t.data()),
                                  reinterpret_cast<const unsigned char*>(b.data()),
                                  static_cast<int>(b.size()));
    t.resize(static_cast<size_t>(n));
    return t;
  }();
  return text;
}

void Processed(benchmark::State& state, size_t bytes) {
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(bytes));
}

void Base64EncodeOurs(benchmark::State& state) {
  const std::string& b = Bytes();
  for (auto _ : state) {
    std::string t = tpcsdk::Base64Encode(b.data(), static_cast<int32_t>(b.size()));
    benchmark::DoNotOptimize(t.data());
  }
  Processed(state, Bytes().size());
}

void Base64EncodeOpenssl(benchmark::State& state) {
  const std::string& b = Bytes();
  for (auto _ : state) {
    std::string t(4 * ((b.size() + 2) / 3) + 1, '\0');
    const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(t.data()),
                                  reinterpret_cast<const unsigned char*>(b.data()),
                                  static_cast<int>(b.size()));
    t.resize(static_cast<size_t>(n));
    benchmark::DoNotOptimize(t.data());
  }
  Processed(state, Bytes().size());
}

void Base64DecodeOurs(benchmark::State& state) {
  const std::string& t = Text();
  for (auto _ : state) {
    std::string b = tpcsdk::Base64Decode(t.data(), static_cast<int32_t>(t.size()));
    benchmark::DoNotOptimize(b.data());
  }
  Processed(state, Bytes().size());
}

void Base64DecodeOpenssl(benchmark::State& state) {
  const std::string& t = PlainText();
  for (auto _ : state) {
    std::string b(3 * (t.size() / 4) + 3, '\0');
    const int n = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(b.data()),
                                  reinterpret_cast<const unsigned char*>(t.data()),
                                  static_cast<int>(t.size()));
    if (n < 0) state.SkipWithError("OpenSSL refused the text");
    b.resize(n < 0 ? 0 : static_cast<size_t>(n));
    benchmark::DoNotOptimize(b.data());
  }
  Processed(state, Bytes().size());
}

void Md5Ours(benchmark::State& state) {
  const std::string& b = Bytes();
  for (auto _ : state) {
    tpcsdk::Md5Context c;
    tpcsdk::Md5Init(c);
    tpcsdk::Md5Update(c, b.data(), b.size());
    std::string hex = tpcsdk::Md5HexDigest(c);
    benchmark::DoNotOptimize(hex.data());
  }
  Processed(state, Bytes().size());
}

void Md5Openssl(benchmark::State& state) {
  const std::string& b = Bytes();
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  for (auto _ : state) {
    EVP_Digest(b.data(), b.size(), digest, &size, EVP_md5(), nullptr);
    benchmark::DoNotOptimize(digest);
  }
  Processed(state, Bytes().size());
}

// The sizes the module hashes and enciphers: a cache entry's directory text (about
// 2 KiB) digested once, and one 16-byte block enciphered under a fresh key schedule,
// as each read or write of an entry does. Here the libraries' per-call setup counts.
constexpr size_t kEntryText = 2048;

void Md5EntryOurs(benchmark::State& state) {
  const std::string& b = Bytes();
  for (auto _ : state) {
    tpcsdk::Md5Context c;
    tpcsdk::Md5Init(c);
    tpcsdk::Md5Update(c, b.data(), kEntryText);
    std::string hex = tpcsdk::Md5HexDigest(c);
    benchmark::DoNotOptimize(hex.data());
  }
  Processed(state, kEntryText);
}

void Md5EntryOpenssl(benchmark::State& state) {
  const std::string& b = Bytes();
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  for (auto _ : state) {
    EVP_Digest(b.data(), kEntryText, digest, &size, EVP_md5(), nullptr);
    benchmark::DoNotOptimize(digest);
  }
  Processed(state, kEntryText);
}

void AesBlockOurs(benchmark::State& state) {
  const auto* key = reinterpret_cast<const uint8_t*>(Bytes().data());
  uint8_t block[16] = {1, 2, 3};
  for (auto _ : state) {
    const tpcsdk::AES aes(key);
    aes.Encipher(block);
    benchmark::DoNotOptimize(block);
  }
}

void AesBlockOpenssl(benchmark::State& state) {
  const auto* key = reinterpret_cast<const unsigned char*>(Bytes().data());
  unsigned char block[16] = {1, 2, 3}, out[32];
  for (auto _ : state) {
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    int n = 0;
    EVP_EncryptInit_ex(ctx, EVP_aes_128_ecb(), nullptr, key, nullptr);
    EVP_CIPHER_CTX_set_padding(ctx, 0);
    EVP_EncryptUpdate(ctx, out, &n, block, 16);
    EVP_CIPHER_CTX_free(ctx);
    benchmark::DoNotOptimize(out);
  }
}

BENCHMARK(Base64EncodeOurs)->Unit(benchmark::kMicrosecond);
BENCHMARK(Base64EncodeOpenssl)->Unit(benchmark::kMicrosecond);
BENCHMARK(Base64DecodeOurs)->Unit(benchmark::kMicrosecond);
BENCHMARK(Base64DecodeOpenssl)->Unit(benchmark::kMicrosecond);
BENCHMARK(Md5Ours)->Unit(benchmark::kMicrosecond);
BENCHMARK(Md5Openssl)->Unit(benchmark::kMicrosecond);
BENCHMARK(Md5EntryOurs);
BENCHMARK(Md5EntryOpenssl);
BENCHMARK(AesBlockOurs);
BENCHMARK(AesBlockOpenssl);

}  // namespace
