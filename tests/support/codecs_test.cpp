#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "support/aes.h"
#include "support/base64.h"
#include "support/md5.h"
#include "support/percent_encode.h"

using namespace tpcsdk;

namespace {

std::vector<std::uint8_t> Hex(const std::string& hex) {
  std::vector<std::uint8_t> out;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) out.push_back(static_cast<std::uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
  return out;
}

// A heap copy of exactly `text.size()` bytes, so a read past the end is caught by ASan.
std::string DecodeExact(const std::string& text) {
  std::unique_ptr<char[]> copy(new char[text.size() ? text.size() : 1]);
  std::copy(text.begin(), text.end(), copy.get());
  return Base64Decode(copy.get(), static_cast<std::int32_t>(text.size()));
}

std::string Encode(const std::string& bytes) {
  return Base64Encode(bytes.data(), static_cast<std::int32_t>(bytes.size()));
}

}  // namespace

// FIPS-197, appendices B and C.1.
struct AesVector {
  const char* key;
  const char* plain;
  const char* cipher;
};

class AesKnownAnswer : public ::testing::TestWithParam<AesVector> {};

TEST_P(AesKnownAnswer, EnciphersAndDeciphersInPlace) {
  const auto key = Hex(GetParam().key);
  auto block = Hex(GetParam().plain);
  const AES aes(key.data());
  EXPECT_EQ(aes.Encipher(block.data()), block.data());
  EXPECT_EQ(block, Hex(GetParam().cipher));
  EXPECT_EQ(aes.Decipher(block.data()), block.data());
  EXPECT_EQ(block, Hex(GetParam().plain));
}

INSTANTIATE_TEST_SUITE_P(
    Fips197, AesKnownAnswer,
    ::testing::Values(AesVector{"2b7e151628aed2a6abf7158809cf4f3c", "3243f6a8885a308d313198a2e0370734",
                                "3925841d02dc09fbdc118597196a0b32"},
                      AesVector{"000102030405060708090a0b0c0d0e0f", "00112233445566778899aabbccddeeff",
                                "69c4e0d86a7b0430d8cdb78070b4c55a"}));

// RFC 1321, appendix A.5.
struct Md5Vector {
  std::string text;
  const char* digest;
};

class Md5Suite : public ::testing::TestWithParam<Md5Vector> {};

TEST_P(Md5Suite, WholeAndInPiecesAndAskedTwice) {
  const std::string& text = GetParam().text;
  EXPECT_EQ(Md5Hex(text), GetParam().digest);
  // Every split point exercises the block buffer's carry-over.
  for (size_t split = 0; split <= text.size(); ++split) {
    Md5Context ctx;
    Md5Init(ctx);
    Md5Update(ctx, text.data(), split);
    Md5Update(ctx, text.data() + split, text.size() - split);
    ASSERT_EQ(Md5HexDigest(ctx), GetParam().digest) << "split at " << split;
    EXPECT_EQ(Md5HexDigest(ctx), GetParam().digest);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Rfc1321, Md5Suite,
    ::testing::Values(
        Md5Vector{"", "d41d8cd98f00b204e9800998ecf8427e"}, Md5Vector{"a", "0cc175b9c0f1b6a831c399e269772661"},
        Md5Vector{"abc", "900150983cd24fb0d6963f7d28e17f72"},
        Md5Vector{"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        Md5Vector{"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
        Md5Vector{"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
                  "d174ab98d277d9f5a5611c2c9f419d9f"},
        Md5Vector{"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
                  "57edf4a22be3c955ac49da2e2107b67a"}));

TEST(Md5, LongInputCrossesManyBlocks) {
  Md5Context ctx;
  Md5Init(ctx);
  const std::string chunk(1000, 'a');
  for (int i = 0; i < 1000; ++i) Md5Update(ctx, chunk.data(), chunk.size());
  EXPECT_EQ(Md5HexDigest(ctx), "7707d6ae4e027c70eea2a935c2296f21");  // one million "a"
}

TEST(Base64, EveryLengthRoundTripsWithLineBreaksAfter76Characters) {
  std::mt19937 rng(7);
  for (int n = 0; n <= 200; ++n) {
    std::string bytes(static_cast<size_t>(n), '\0');
    for (auto& b : bytes) b = static_cast<char>(rng());
    const std::string text = Encode(bytes);
    // Lines of exactly 76 characters, each ended by CR LF; the last line is shorter
    // and unterminated unless the length is a multiple of 57.
    size_t line_start = 0, breaks = 0;
    for (size_t pos = text.find("\r\n"); pos != std::string::npos; pos = text.find("\r\n", pos + 2)) {
      ASSERT_EQ(pos - line_start, 76u) << "length " << n;
      line_start = pos + 2;
      ++breaks;
    }
    EXPECT_EQ(breaks, static_cast<size_t>(n / 57)) << "length " << n;
    EXPECT_EQ(text.size() - 2 * breaks, static_cast<size_t>((n + 2) / 3 * 4)) << "length " << n;
    EXPECT_EQ(DecodeExact(text), bytes) << "length " << n;
  }
}

struct Base64Case {
  std::string bytes;
  std::string text;
};

class Base64Known : public ::testing::TestWithParam<Base64Case> {};

TEST_P(Base64Known, Encodes) { EXPECT_EQ(Encode(GetParam().bytes), GetParam().text); }

INSTANTIATE_TEST_SUITE_P(
    Texts, Base64Known,
    ::testing::Values(Base64Case{"", ""}, Base64Case{"f", "Zg=="}, Base64Case{"fo", "Zm8="},
                      Base64Case{"foo", "Zm9v"}, Base64Case{"foobar", "Zm9vYmFy"},
                      Base64Case{std::string(57, '\0'), std::string(76, 'A') + "\r\n"},
                      Base64Case{std::string(58, '\0'), std::string(76, 'A') + "\r\nAA=="}));

class Base64Lenient : public ::testing::TestWithParam<Base64Case> {};

TEST_P(Base64Lenient, Decodes) { EXPECT_EQ(DecodeExact(GetParam().text), GetParam().bytes); }

INSTANTIATE_TEST_SUITE_P(
    Quirks, Base64Lenient,
    ::testing::Values(
        Base64Case{"A", "QQ=="},
        // Breaks and stray characters where a group would start are stepped over.
        Base64Case{"foobar", "Zm9v\r\nYmFy"}, Base64Case{"foo", "\n\n=Zm9v"},
        // After padding the count runs ahead of the read position: the second group
        // of two padded groups starts after the first one's "=" signs are counted.
        Base64Case{"AA", "QQ==QQ=="},
        // Only a group's first character is checked; later ones outside the alphabet are 0.
        Base64Case{std::string("\x66\x00\x00", 3), "Zg\r\n"},
        // A group cut short by the length reads NUL for its missing characters.
        Base64Case{std::string("A\0\0", 3), "QQ"}, Base64Case{std::string("d\0\0", 3), "Z"},
        Base64Case{"", ""}, Base64Case{"", "====\r\n"}));

// The decoder's whole-group fast path against the one-step-at-a-time reading it
// shortcuts, on texts mixing alphabet characters, padding, line breaks and junk in
// every position and length.
std::string DecodeStepwise(const std::string& text) {
  const auto value = [](unsigned char c) -> int {
    const char* alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const char* hit = c ? std::strchr(alphabet, c) : nullptr;
    return hit ? static_cast<int>(hit - alphabet) : -1;
  };
  const auto bits = [&](unsigned char c) { return value(c) < 0 ? 0u : static_cast<unsigned>(value(c)); };
  const auto at = [&](size_t i) -> unsigned char { return i < text.size() ? static_cast<unsigned char>(text[i]) : 0; };
  std::string out;
  for (size_t count = 0, pos = 0; count < text.size();) {
    if (value(at(pos)) < 0) {
      ++pos, ++count;
      continue;
    }
    const unsigned a = bits(at(pos)), b = bits(at(pos + 1));
    pos += 2;
    out += static_cast<char>((a << 2) | (b >> 4));
    if (at(pos) != '=') {
      const unsigned c = bits(at(pos++));
      out += static_cast<char>(((b & 15) << 4) | (c >> 2));
      if (at(pos) != '=') out += static_cast<char>(((c & 3) << 6) | bits(at(pos++)));
    }
    count += 4;
  }
  return out;
}

TEST(Base64, DecodesLikeTheStepwiseReading) {
  std::mt19937 rng(11);
  const std::string pieces[] = {"QUJD", "Zm9v", "=", "==", "\r\n", "\n", "A", "+/", "*", std::string(1, '\0'), "\xC3"};
  for (int round = 0; round < 3000; ++round) {
    std::string text;
    const int parts = static_cast<int>(rng() % 24);
    for (int i = 0; i < parts; ++i) text += pieces[rng() % (sizeof pieces / sizeof pieces[0])];
    ASSERT_EQ(DecodeExact(text), DecodeStepwise(text)) << ::testing::PrintToString(text);
  }
}

TEST(Base64, RefusesNullAndNegativeLengths) {
  EXPECT_EQ(Base64Encode(nullptr, 5), "");
  EXPECT_EQ(Base64Encode("abc", -1), "");
  EXPECT_EQ(Base64Decode(nullptr, 5), "");
  EXPECT_EQ(Base64Decode("QQ==", -4), "");
}

struct PercentCase {
  std::string in;
  std::string out;
};

class Percent : public ::testing::TestWithParam<PercentCase> {};

TEST_P(Percent, Encodes) { EXPECT_EQ(PercentEncode(GetParam().in), GetParam().out); }

INSTANTIATE_TEST_SUITE_P(
    Texts, Percent,
    ::testing::Values(PercentCase{"a b@c", "a%20b%40c"}, PercentCase{"\xC3\xA9", "%C3%A9"},
                      PercentCase{"$-_.+!*'(),", "$-_.+!*'(),"}, PercentCase{"AZaz09", "AZaz09"},
                      PercentCase{"/?=&%~:", "%2F%3F%3D%26%25%7E%3A"},
                      PercentCase{std::string("\0\x7f\xff", 3), "%00%7F%FF"}, PercentCase{"", ""}));
