#include "Platform/Linux/CodeSigning/SignatureTrailer.h"

#include <algorithm>
#include <vector>

#include <gtest/gtest.h>

namespace platform {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Outcome = std::expected<SignatureTrailer, TrailerFault>;

Bytes trailerOf(std::uint32_t size) {
  const auto trailer = makeSignatureTrailer(size);
  return {trailer.begin(), trailer.end()};
}

Bytes withByte(Bytes bytes, std::size_t at, std::uint8_t value) {
  bytes[at] = value;
  return bytes;
}

TEST(SignatureTrailerTest, HasTheLayoutOfAKernelModule) {
  const Bytes trailer = trailerOf(0x01020304);
  const Bytes fields(trailer.begin(), trailer.begin() + 12);
  EXPECT_EQ(fields, (Bytes{0, 0, 2, 0, 0, 0, 0, 0, 1, 2, 3, 4}));
  EXPECT_EQ(std::string(trailer.begin() + 12, trailer.end()), "~Module signature appended~\n");
}

TEST(SignatureTrailerTest, ReturnsPayloadAndSignature) {
  EXPECT_EQ(readSignatureTrailer(1000, trailerOf(300)), (SignatureTrailer{660, 300}));
}

TEST(SignatureTrailerTest, AFileWithoutATrailerIsNotSigned) {
  for (const std::string text :
       {"", "x", "~Module", "~Module signature appended~ ", "~module signature appended~\n"}) {
    EXPECT_EQ(readSignatureTrailer(text.size(), Bytes(text.begin(), text.end())),
              Outcome(std::unexpected(TrailerFault::kAbsent)))
        << text;
  }
}

TEST(SignatureTrailerTest, AnyBeginningOfTheMagicIsATruncatedTrailer) {
  const Bytes whole = trailerOf(300);
  for (std::size_t cut = 1; cut <= kTrailerMagic.size() - 8; ++cut) {
    EXPECT_EQ(readSignatureTrailer(1000, std::span(whole).first(whole.size() - cut)),
              Outcome(std::unexpected(TrailerFault::kCut)))
        << cut;
  }
}

TEST(SignatureTrailerTest, TheTextAloneIsTooShort) {
  const Bytes whole = trailerOf(1);
  for (std::size_t size = kTrailerMagic.size(); size < whole.size(); ++size) {
    EXPECT_EQ(readSignatureTrailer(size, std::span(whole).last(size)),
              Outcome(std::unexpected(TrailerFault::kTooShort)));
  }
  EXPECT_EQ(readSignatureTrailer(whole.size(), whole),
            Outcome(std::unexpected(TrailerFault::kBeyondFile)));
}

TEST(SignatureTrailerTest, SizesAreAcceptedUpToEveryLimit) {
  const std::uint64_t large = 1'000'000;
  const auto fault = [](std::uint64_t file, std::uint32_t size) {
    return readSignatureTrailer(file, trailerOf(size));
  };
  EXPECT_EQ(fault(large, 0), Outcome(std::unexpected(TrailerFault::kEmpty)));
  EXPECT_TRUE(fault(large, 1));
  EXPECT_TRUE(fault(large, kMaxSignatureBytes));
  EXPECT_EQ(fault(large, kMaxSignatureBytes + 1),
            Outcome(std::unexpected(TrailerFault::kTooLarge)));
  EXPECT_EQ(fault(large, 0xffffffff), Outcome(std::unexpected(TrailerFault::kBeyondFile)));
  EXPECT_EQ(fault(std::uint64_t{1} << 40, 0xffffffff),
            Outcome(std::unexpected(TrailerFault::kTooLarge)));
  EXPECT_TRUE(fault(kTrailerBytes + 301, 300));
  EXPECT_EQ(fault(kTrailerBytes + 300, 300), Outcome(std::unexpected(TrailerFault::kSignsNothing)));
  EXPECT_EQ(fault(kTrailerBytes + 299, 300), Outcome(std::unexpected(TrailerFault::kBeyondFile)));
}

TEST(SignatureTrailerTest, ForgedFieldsAreRefused) {
  for (const std::size_t at : {0, 1, 3, 4, 5, 6, 7}) {
    EXPECT_EQ(readSignatureTrailer(1000, withByte(trailerOf(300), at, 1)),
              Outcome(std::unexpected(TrailerFault::kReservedBytes)))
        << at;
  }
  for (const int kind : {0, 1, 3, 255}) {
    EXPECT_EQ(
        readSignatureTrailer(1000, withByte(trailerOf(300), 2, static_cast<std::uint8_t>(kind))),
        Outcome(std::unexpected(TrailerFault::kForeignKind)))
        << kind;
  }
}

}  // namespace
}  // namespace platform
