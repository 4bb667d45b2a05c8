#include "Platform/Digests/Digest.h"

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>
#include <sys/mman.h>

namespace platform {
namespace {

std::span<const std::uint8_t> bytesOf(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

struct Vector {
  std::string message;
  const char* digest;
};

// RFC 1321, appendix A.5.
TEST(DigestTest, Md5GivesThePublishedDigests) {
  const Vector vectors[] = {
      {"", "d41d8cd98f00b204e9800998ecf8427e"},
      {"a", "0cc175b9c0f1b6a831c399e269772661"},
      {"abc", "900150983cd24fb0d6963f7d28e17f72"},
      {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
      {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
      {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
       "d174ab98d277d9f5a5611c2c9f419d9f"},
      {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
       "57edf4a22be3c955ac49da2e2107b67a"}};
  for (const auto& [message, digest] : vectors) {
    EXPECT_EQ(hexadecimalText(CC_MD5(bytesOf(message))), digest) << message;
  }
}

// NIST's examples for FIPS 180 and its byte-oriented test vectors (SHA1ShortMsg).
TEST(DigestTest, Sha1GivesThePublishedDigests) {
  const Vector vectors[] = {
      {"", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
      {"\x36", "c1dfd96eea8cc2b62785275bca38ac261256e278"},
      {"abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
      {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
       "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
      {std::string(1'000'000, 'a'), "34aa973cd4c4daa4f61eeb2bdbad27316534016f"}};
  for (const auto& [message, digest] : vectors) {
    EXPECT_EQ(hexadecimalText(CC_SHA1(bytesOf(message))), digest) << message.substr(0, 100);
  }
}

// NIST's examples for FIPS 180 and its byte-oriented test vectors (SHA256ShortMsg).
TEST(DigestTest, Sha256GivesThePublishedDigests) {
  const Vector vectors[] = {
      {"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
      {"\xd3", "28969cdfa74a12c82f3bad960b0b000aca2ac329deea5c2328ebc6f2ba9802c1"},
      {"\xbd", "68325720aabd7c82f30f554b313d0570c95accbb7dc4b5aae11204c08ffe732b"},
      {"abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
      {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
       "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
      {std::string(1'000'000, 'a'),
       "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"}};
  for (const auto& [message, digest] : vectors) {
    EXPECT_EQ(hexadecimalText(CC_SHA256(bytesOf(message))), digest) << message.substr(0, 100);
  }
}

TEST(DigestTest, ANullSpanIsHashedLikeAnEmptyText) {
  EXPECT_EQ(CC_MD5({}), CC_MD5(bytesOf("")));
  EXPECT_EQ(CC_SHA1({}), CC_SHA1(bytesOf("")));
  EXPECT_EQ(CC_SHA256({}), CC_SHA256(bytesOf("")));
}

// The size must not be cut to 32 bits anywhere.
TEST(DigestLong, MoreThanFourGibibytesAreHashedWhole) {
  constexpr std::size_t kSize = (std::size_t{1} << 32) + 1;
  // The mapping reads as zeros and takes no memory.
  void* const zeros =
      ::mmap(nullptr, kSize, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  ASSERT_NE(zeros, MAP_FAILED);
  EXPECT_EQ(hexadecimalText(CC_SHA256({static_cast<const std::uint8_t*>(zeros), kSize})),
            "fbb82f7b353676bb562eb82157fcf0ea42c36492ca13ee56dbf82c08b6802c5c");
  ::munmap(zeros, kSize);
}

TEST(DigestTest, HexadecimalTextHasTwoLowerCaseDigitsForEachByte) {
  EXPECT_EQ(hexadecimalText({}), "");
  EXPECT_EQ(hexadecimalText(std::vector<std::uint8_t>{0x00, 0x0a, 0xa0, 0xff}), "000aa0ff");
}

}  // namespace
}  // namespace platform
