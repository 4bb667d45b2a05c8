#include "Shared/Crypto/HashValue.h"

#include <bit>
#include <cstdint>
#include <limits>
#include <string>
#include <unordered_map>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/PropertyLists/PropertyList.h"

namespace {

using platform::Data;
using platform::Dictionary;
using platform::ErrorCode;
using platform::PropertyListFormat;
using platform::Value;

Data dataOf(std::string_view text) { return Data(text.begin(), text.end()); }

Data counted(std::size_t size) {
  Data data(size);
  for (std::size_t i = 0; i < size; ++i) data[i] = static_cast<std::uint8_t>(i + 1);
  return data;
}

Data listOf(const Value& value) {
  return platform::writePropertyList(value, PropertyListFormat::kBinary).value();
}

TEST(HashValueTest, TheDescriptionIsTheDigestInLowerCaseHexadecimal) {
  EXPECT_EQ(HashValue::md5HashWithData({}).description(), "d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_EQ(HashValue::md5HashWithData(dataOf("abc")).description(),
            "900150983cd24fb0d6963f7d28e17f72");
  EXPECT_EQ(HashValue::sha256HashWithData(dataOf("abc")).description(),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(HashValue::initHashValueMD5HashWithBytes(dataOf("abc")),
            HashValue::md5HashWithData(dataOf("abc")));
  EXPECT_EQ(HashValue::initSha256HashWithBytes(dataOf("abc")),
            HashValue::sha256HashWithData(dataOf("abc")));
}

TEST(HashValueTest, BytesPastTheDigestAreZero) {
  const HashValue md5 = HashValue::md5HashWithData(dataOf("abc"));
  EXPECT_EQ(md5.type(), 0);
  EXPECT_THAT(std::span(md5.value()).subspan(16), testing::Each(0));
  const HashValue sha256 = HashValue::sha256HashWithData(dataOf("abc"));
  EXPECT_EQ(sha256.type(), 1);
  EXPECT_EQ(sha256.value()[31], 0xad);
  EXPECT_THAT(std::span(sha256.value()).subspan(32), testing::Each(0));
}

TEST(HashValueTest, ABufferGivesTheBytesOfItsType) {
  const Data buffer = counted(100);
  const struct {
    std::int32_t type;
    std::size_t bytes;
  } cases[] = {{0, 16}, {1, 32}, {2, 0}, {-1, 0}, {INT32_MAX, 0}, {INT32_MIN, 0}};
  for (const auto& [type, bytes] : cases) {
    const HashValue made = HashValue::initWithBuffer(buffer, type);
    EXPECT_EQ(made.type(), type);
    for (std::size_t i = 0; i < HashValue::kBufferBytes; ++i) {
      EXPECT_EQ(made.value()[i], i < bytes ? i + 1 : 0) << type << " at " << i;
    }
    EXPECT_EQ(made.description().size(), 2 * bytes);
  }
}

TEST(HashValueTest, BytesThatABufferLacksAreZero) {
  for (const std::size_t size : {0, 15, 16, 17, 31, 32, 33}) {
    const HashValue made = HashValue::initWithBuffer(counted(size), HashValue::kSHA256);
    for (std::size_t i = 0; i < HashValue::kBufferBytes; ++i) {
      EXPECT_EQ(made.value()[i], i < std::min<std::size_t>(size, 32) ? i + 1 : 0);
    }
  }
}

TEST(HashValueTest, TheHashIsTheFirstEightBytesInNativeOrder) {
  const std::uint64_t expected =
      std::endian::native == std::endian::little ? 0x0807060504030201 : 0x0102030405060708;
  EXPECT_EQ(HashValue::initWithBuffer(counted(16), HashValue::kMD5).hash(), expected);
}

TEST(HashValueTest, EqualMeansTheSameTypeAndTheSameBuffer) {
  const HashValue md5 = HashValue::initWithBuffer(counted(16), HashValue::kMD5);
  EXPECT_TRUE(md5.isEqual(&md5));
  const HashValue same = HashValue::initWithBuffer(counted(48), HashValue::kMD5);
  EXPECT_TRUE(md5.isEqual(&same));
  EXPECT_FALSE(md5.isEqual(nullptr));
  Data other = counted(16);
  other[15] = 0;
  const HashValue different = HashValue::initWithBuffer(other, HashValue::kMD5);
  EXPECT_FALSE(md5.isEqual(&different));
}

TEST(HashValueTest, TheSameDigestOfAnotherTypeIsNotEqual) {
  const HashValue md5 = HashValue::initWithBuffer(counted(16), HashValue::kMD5);
  const HashValue sha256 = HashValue::initWithBuffer(counted(16), HashValue::kSHA256);
  EXPECT_EQ(md5.value(), sha256.value());
  EXPECT_FALSE(md5.isEqual(&sha256));
}

// Bytes past the digest count too, which only an archive can set.
TEST(HashValueTest, EqualityComparesTheWholeBuffer) {
  Data longer = counted(16);
  longer.push_back(1);
  const auto one = HashValue::initWithCoder(Dictionary{{"value", counted(16)}, {"type", 0}});
  const auto other = HashValue::initWithCoder(Dictionary{{"value", longer}, {"type", 0}});
  ASSERT_TRUE(one && other);
  EXPECT_EQ(one->description(), other->description());
  EXPECT_NE(*one, *other);
}

TEST(HashValueTest, ACopyKeepsTheDigestOfAKnownType) {
  const HashValue md5 = HashValue::md5HashWithData(dataOf("abc"));
  EXPECT_EQ(md5.copyWithZone(), md5);
  const auto unknown = HashValue::initWithCoder(Dictionary{{"value", counted(48)}, {"type", 9}});
  ASSERT_TRUE(unknown);
  EXPECT_EQ(unknown->value()[47], 48);
  const HashValue copy = unknown->copyWithZone();
  EXPECT_EQ(copy.type(), 9);
  EXPECT_THAT(copy.value(), testing::Each(0));
}

TEST(HashValueTest, ItCanBeAKey) {
  std::unordered_map<HashValue, int> table;
  table[HashValue::md5HashWithData(dataOf("a"))] = 1;
  table[HashValue::sha256HashWithData(dataOf("a"))] = 2;
  table[HashValue::md5HashWithData(dataOf("a"))] += 10;
  EXPECT_EQ(table.size(), 2u);
  EXPECT_EQ(table[HashValue::md5HashWithData(dataOf("a"))], 11);
}

TEST(HashValueTest, TheArchiveHoldsTheWholeBufferAndTheType) {
  const Dictionary archive = HashValue::md5HashWithData(dataOf("abc")).encodeWithCoder();
  ASSERT_EQ(archive.size(), 2u);
  ASSERT_TRUE(archive["value"].data());
  EXPECT_EQ(archive["value"].data()->size(), 48u);
  EXPECT_EQ(archive["type"].integer(), 0);
}

TEST(HashValueTest, ADecodedValueEqualsTheEncodedOne) {
  for (const HashValue& value :
       {HashValue::md5HashWithData({}), HashValue::sha256HashWithData(dataOf("abc")),
        HashValue::initWithBuffer({}, INT32_MIN), HashValue::initWithBuffer({}, INT32_MAX)}) {
    EXPECT_EQ(HashValue::initWithCoder(value.encodeWithCoder()), value);
    const auto archive = value.archivedData();
    ASSERT_TRUE(archive);
    EXPECT_EQ(HashValue::unarchive(*archive, "archive"), value);
  }
  const auto unknown = HashValue::initWithCoder(Dictionary{{"value", counted(48)}, {"type", -7}});
  EXPECT_EQ(HashValue::unarchive(unknown->archivedData().value(), "archive"), *unknown);
}

TEST(HashValueTest, AnArchiveInXmlIsReadAsWell) {
  const HashValue value = HashValue::sha256HashWithData(dataOf("abc"));
  const auto xml = platform::writePropertyList(value.encodeWithCoder(), PropertyListFormat::kXml);
  EXPECT_EQ(HashValue::unarchive(*xml, "archive"), value);
}

TEST(HashValueTest, AnArchivedValueIsCutOrPadded) {
  for (const std::size_t size : {0, 1, 47, 48, 49, 1000}) {
    const auto value =
        HashValue::unarchive(listOf(Dictionary{{"value", counted(size)}, {"type", 1}}), "archive");
    ASSERT_TRUE(value) << size;
    for (std::size_t i = 0; i < HashValue::kBufferBytes; ++i) {
      EXPECT_EQ(value->value()[i], i < size ? i + 1 : 0) << size << " at " << i;
    }
  }
}

TEST(HashValueTest, AnInvalidArchivesErrorNamesTheFault) {
  const Data value = counted(48);
  const struct {
    Value archive;
    const char* error;
  } cases[] = {
      {Dictionary{}, "archive: \"value\" must be data"},
      {Dictionary{{"type", 0}}, "archive: \"value\" must be data"},
      {Dictionary{{"value", "text"}, {"type", 0}}, "archive: \"value\" must be data"},
      {Dictionary{{"value", value}}, "archive: \"type\" must be a 32-bit integer"},
      {Dictionary{{"value", value}, {"type", "0"}}, "archive: \"type\" must be a 32-bit integer"},
      {Dictionary{{"value", value}, {"type", 0.0}}, "archive: \"type\" must be a 32-bit integer"},
      {Dictionary{{"value", value}, {"type", true}}, "archive: \"type\" must be a 32-bit integer"},
      {Dictionary{{"value", value}, {"type", std::int64_t{INT32_MAX} + 1}},
       "archive: \"type\" must be a 32-bit integer"},
      {Dictionary{{"value", value}, {"type", std::int64_t{INT32_MIN} - 1}},
       "archive: \"type\" must be a 32-bit integer"},
      {platform::Array{value, 0}, "archive: must be a dictionary"},
      {"text", "archive: must be a dictionary"}};
  for (const auto& [archive, error] : cases) {
    const auto decoded = HashValue::unarchive(listOf(archive), "archive");
    ASSERT_FALSE(decoded) << error;
    EXPECT_EQ(decoded.error().code, ErrorCode::kInvalid);
    EXPECT_EQ(decoded.error().context, error);
  }
  EXPECT_EQ(HashValue::initWithCoder({}).error().osError, 0);
  const auto garbage = HashValue::unarchive(dataOf("bplist00"), "archive");
  ASSERT_FALSE(garbage);
  EXPECT_THAT(garbage.error().context, testing::StartsWith("archive: "));
  EXPECT_FALSE(HashValue::unarchive({}, "archive"));
}

TEST(HashValueTest, AnArchivesSizeIsLimited) {
  const auto xml = platform::writePropertyList(HashValue::md5HashWithData({}).encodeWithCoder(),
                                               PropertyListFormat::kXml);
  const auto ofSize = [&](std::size_t size) {
    Data padded = *xml;
    padded.resize(size, '\n');
    return HashValue::unarchive(padded, "archive");
  };
  EXPECT_TRUE(ofSize(HashValue::kMaxArchiveBytes - 1));
  EXPECT_TRUE(ofSize(HashValue::kMaxArchiveBytes));
  const auto tooLarge = ofSize(HashValue::kMaxArchiveBytes + 1);
  ASSERT_FALSE(tooLarge);
  EXPECT_EQ(tooLarge.error().code, ErrorCode::kExhausted);
  EXPECT_EQ(tooLarge.error().context,
            "archive: is larger than the 4096 bytes of a digest's archive");
}

}  // namespace
