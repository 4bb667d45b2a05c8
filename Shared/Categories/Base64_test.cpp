#include "Shared/Categories/Base64.h"

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <random>
#include <string>

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

using platform::Data;

Data bytesOfText(std::string_view text) { return Data(text.begin(), text.end()); }
std::string textOf(const Data& data) { return std::string(data.begin(), data.end()); }

std::string decoded(std::string_view text) { return textOf(Base64::dataFromBase64String(text)); }

// RFC 4648, section 10.
TEST(Base64Test, ThePublishedVectorsHoldBothWays) {
  const struct {
    const char* bytes;
    const char* text;
  } vectors[] = {{"", ""},
                 {"f", "Zg=="},
                 {"fo", "Zm8="},
                 {"foo", "Zm9v"},
                 {"foob", "Zm9vYg=="},
                 {"fooba", "Zm9vYmE="},
                 {"foobar", "Zm9vYmFy"}};
  for (const auto& [bytes, text] : vectors) {
    EXPECT_EQ(Base64::base64EncodedString(bytesOfText(bytes)), text);
    EXPECT_EQ(Base64::base64EncodedStringWithoutLineBreaks(bytesOfText(bytes)), text);
    EXPECT_EQ(decoded(text), bytes);
  }
}

TEST(Base64Test, AFullLastLineHasNoLineBreak) {
  const std::string line(64, 'A');
  EXPECT_EQ(Base64::base64EncodedString(Data(47)), line.substr(0, 63) + "=");
  EXPECT_EQ(Base64::base64EncodedString(Data(48)), line);
  EXPECT_EQ(Base64::base64EncodedString(Data(49)), line + "\r\nAA==");
  EXPECT_EQ(Base64::base64EncodedString(Data(96)), line + "\r\n" + line);
  EXPECT_EQ(Base64::base64EncodedString(Data(97)), line + "\r\n" + line + "\r\nAA==");
  EXPECT_EQ(Base64::base64EncodedStringWithoutLineBreaks(Data(49)), line + "AA==");
}

// OpenSSL's coder as the oracle.
TEST(Base64Test, EverySizeAndByteComesBack) {
  std::mt19937 random(1);
  for (std::size_t size = 0; size < 400; ++size) {
    Data data(size);
    for (auto& byte : data) byte = static_cast<std::uint8_t>(random());
    const std::string oneLine = Base64::base64EncodedStringWithoutLineBreaks(data);
    std::string expected(4 * ((size + 2) / 3) + 1, '\0');
    expected.resize(static_cast<std::size_t>(EVP_EncodeBlock(
        reinterpret_cast<unsigned char*>(expected.data()), data.data(), static_cast<int>(size))));
    ASSERT_EQ(oneLine, expected);
    ASSERT_EQ(Base64::dataFromBase64String(oneLine), data);
    ASSERT_EQ(Base64::dataFromBase64String(Base64::base64EncodedString(data)), data);
  }
}

TEST(Base64Test, ANullInputOfAnyLengthIsEmpty) {
  for (const std::size_t length : {std::size_t{0}, std::size_t{5}, kBase64ZeroTerminated}) {
    std::size_t size = 1;
    EXPECT_TRUE(newBase64Decode(nullptr, length, &size));
    EXPECT_EQ(size, 0U);
  }
}

TEST(Base64Test, NilAndWhiteSpaceAreEmptyData) {
  EXPECT_TRUE(Base64::dataFromBase64String(std::nullopt).empty());
  for (const char* text : {"", " ", "\n", " \t\r\n", "\u2003"}) {
    EXPECT_TRUE(Base64::dataFromBase64String(text).empty());
  }
}

TEST(Base64Test, CharactersOutsideTheAlphabetAreSkipped) {
  EXPECT_EQ(decoded("Zm 9v\r\nYm\tFy"), "foobar");
  EXPECT_EQ(decoded("-Z_m*9=v"), "foo");
  EXPECT_EQ(decoded("Zm\u00e99v"), "foo");
  EXPECT_EQ(decoded("Zm\xff\x80"
                    "9v"),
            "foo");
  EXPECT_EQ(decoded(std::string_view("Zm\0"
                                     "9v",
                                     5)),
            "foo");
}

// Deliberate.
TEST(Base64Test, SkippedCharactersAfterTheLastGroupTakeAByte) {
  EXPECT_EQ(decoded("Zm9v\n"), "fo");
  EXPECT_EQ(decoded("Zm9v\r\n\r\n"), "fo");
  EXPECT_EQ(decoded("Zm9v="), "fo");
  EXPECT_EQ(decoded("Zm9vYmFy\n"), "fooba");
  // After an incomplete group they take nothing, since the group reaches to the end.
  EXPECT_EQ(decoded("Zm8=\n"), "fo");
  EXPECT_EQ(decoded("Zg==\n"), "f");
}

TEST(Base64Test, WithoutAByteToTakeTheLengthIsZero) {
  EXPECT_EQ(decoded("="), "");
  EXPECT_EQ(decoded("====\n"), "");
  std::size_t length = 7;
  EXPECT_TRUE(newBase64Decode("\n", 1, &length));
  EXPECT_EQ(length, 0u);
}

TEST(Base64Test, AnIncompleteGroupGivesItsWholeBytes) {
  EXPECT_EQ(decoded("Z"), "");
  EXPECT_EQ(decoded("Zm"), "f");
  EXPECT_EQ(decoded("Zm9"), "fo");
  EXPECT_EQ(decoded("Zm9vZ"), "foo");
  EXPECT_EQ(decoded("Z\n"), "");
}

TEST(Base64Test, TheEncodersLengthExcludesTheFinalZero) {
  for (const Base64Lines lines : {Base64Lines::kOne, Base64Lines::kSeparate}) {
    for (const std::size_t size : {0, 1, 47, 48, 49, 96, 1000}) {
      const Data data(size);
      std::size_t length = 0;
      const auto text = newBase64Encode(data.data(), data.size(), lines, &length);
      ASSERT_TRUE(text);
      EXPECT_EQ(std::string(text.get()).size(), length);
      EXPECT_TRUE(newBase64Encode(data.data(), data.size(), lines, nullptr));
    }
  }
}

TEST(Base64Test, AZeroTerminatedTextIsMeasured) {
  std::size_t length = 0;
  const auto bytes = newBase64Decode("Zm9v\0Zm9v", kBase64ZeroTerminated, &length);
  EXPECT_EQ(std::string(bytes.get(), bytes.get() + length), "foo");
  EXPECT_TRUE(newBase64Decode("", kBase64ZeroTerminated, &length));
  EXPECT_EQ(length, 0u);
  EXPECT_TRUE(newBase64Decode("Zm9v", 4, nullptr));
}

// The input is not read when the allocation fails.
TEST(Base64Test, WithoutMemoryTheEncoderGivesNull) {
  const char byte = 0;
  for (const Base64Lines lines : {Base64Lines::kOne, Base64Lines::kSeparate}) {
    std::size_t length = 7;
    EXPECT_FALSE(newBase64Encode(&byte, std::numeric_limits<std::size_t>::max(), lines, &length));
    EXPECT_EQ(length, 0u);
  }
}

// Runs in its own process, whose memory is limited.
TEST(Base64DeathTest, WithoutMemoryTheTextIsEmpty) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizer ends a program without memory";
#endif
  const Data data(64 * 1024 * 1024);
  const auto encodeWithoutMemory = [&] {
    std::size_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    const rlim_t size = pages * static_cast<rlim_t>(::sysconf(_SC_PAGESIZE)) + 16 * 1024 * 1024;
    const rlimit limit{size, size};
    if (pages == 0 || ::setrlimit(RLIMIT_AS, &limit) != 0) std::_Exit(2);
    const bool isEmpty = Base64::base64EncodedString(data).empty() &&
                         Base64::base64EncodedStringWithoutLineBreaks(data).empty();
    std::_Exit(isEmpty ? 0 : 1);
  };
  EXPECT_EXIT(encodeWithoutMemory(), testing::ExitedWithCode(0), "");
}

TEST(Base64Test, EnormousDataComesBack) {
  Data data(5'000'000);
  for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<std::uint8_t>(i * 7);
  EXPECT_EQ(Base64::dataFromBase64String(Base64::base64EncodedString(data)), data);
}

}  // namespace
