#include <bit>
#include <cmath>

#include <gtest/gtest.h>

#include "Platform/PropertyLists/PropertyList.h"
#include "Platform/Testing/PropertyLists/BinaryPropertyListLayout.h"

namespace platform {
namespace {

using namespace std::string_literals;
using Layout = BinaryPropertyListLayout;

std::string binaryErrorOf(std::string_view bytes, ErrorCode code = ErrorCode::kInvalid) {
  const Result<Value> value = readPropertyList(bytes, "a.plist");
  EXPECT_FALSE(value);
  if (value) return "";
  EXPECT_EQ(value.error().code, code);
  return value.error().context;
}

Value readOne(const std::string& object) {
  const Result<Value> value = readPropertyList(Layout{{object}}.bytes(), "a.plist");
  EXPECT_TRUE(value) << value.error().context;
  return value.value_or(Value());
}

std::string errorOfOne(const std::string& object) {
  return binaryErrorOf(Layout{{object}}.bytes());
}

TEST(PropertyListBinaryTest, ReadsEveryKindOfValue) {
  EXPECT_EQ(readOne("\x00"s), Value::nullMarker());
  EXPECT_EQ(readOne("\x08").boolean(), false);
  EXPECT_EQ(readOne("\x09").boolean(), true);
  EXPECT_EQ(readOne("\x22\x3F\xC0\x00\x00"s).real(), 1.5);
  EXPECT_EQ(readOne("\x23\xC0\x04\x00\x00\x00\x00\x00\x00"s).real(), -2.5);
  EXPECT_EQ(readOne("\x33\x40\x24\x00\x00\x00\x00\x00\x00"s), Value(Date{10}));
  EXPECT_EQ(readOne("\x42\x01\xFF"), Value(Data{1, 0xFF}));
  EXPECT_EQ(readOne("\x53"s + "abc"), Value("abc"));
  EXPECT_EQ(readOne("\x63\x00\xE9\xD8\x3D\xDE\x00"s), Value("\xC3\xA9\xF0\x9F\x98\x80"));
  EXPECT_EQ(readOne("\xA0"), Value(Array{}));
  EXPECT_EQ(readOne("\xD0"), Value(Dictionary{}));
  const Layout nested{{"\xA2\x01\x02"s, "\x10\x07"s, "\xD1\x03\x01"s, "\x51k"s}};
  EXPECT_EQ(readPropertyList(nested.bytes(), "a"), Value(Array({7, Dictionary{{"k", 7}}})));
}

TEST(PropertyListBinaryTest, IntegersOfOneTwoAndFourBytesAreUnsigned) {
  EXPECT_EQ(readOne("\x10\xFF").integer(), 255);
  EXPECT_EQ(readOne("\x11\xFF\xFF").integer(), 65535);
  EXPECT_EQ(readOne("\x12\xFF\xFF\xFF\xFF").integer(), 4294967295);
  EXPECT_EQ(readOne("\x13" + bigEndian(UINT64_MAX, 8)).integer(), -1);
  EXPECT_EQ(readOne("\x13" + bigEndian(UINT64_MAX / 2, 8)).integer(), INT64_MAX);
}

TEST(PropertyListBinaryTest, IntegersOfSixteenBytesMustFitSixtyFourBits) {
  const auto wide = [](std::uint64_t high, std::uint64_t low) {
    return "\x14" + bigEndian(high, 8) + bigEndian(low, 8);
  };
  constexpr std::uint64_t kSign = std::uint64_t{1} << 63;
  EXPECT_EQ(readOne(wide(0, kSign - 1)).integer(), INT64_MAX);
  EXPECT_EQ(readOne(wide(UINT64_MAX, kSign)).integer(), INT64_MIN);
  EXPECT_EQ(readOne(wide(0, 5)).integer(), 5);
  for (const std::string& object :
       {wide(0, kSign), wide(UINT64_MAX, kSign - 1), wide(1, 0), wide(kSign, 0)}) {
    EXPECT_EQ(errorOfOne(object),
              "a.plist: offset 8: integer out of range, expected -9223372036854775808 to "
              "9223372036854775807");
  }
  EXPECT_EQ(errorOfOne("\x15" + std::string(32, '\0')),
            "a.plist: offset 8: integer of 2^5 bytes, expected 1, 2, 4, 8 or 16");
}

TEST(PropertyListBinaryTest, DatesMustBeInTheYears1To9999) {
  const auto real = [](double value) { return bigEndian(std::bit_cast<std::uint64_t>(value), 8); };
  EXPECT_EQ(readOne("\x23" + real(-INFINITY)).real(), -INFINITY);
  EXPECT_TRUE(std::isnan(*readOne("\x23" + real(NAN)).real()));
  EXPECT_EQ(readOne("\x33" + real(0.25)), Value(Date{0.25}));
  EXPECT_EQ(readOne("\x33" + real(-63'113'904'000.0)), Value(Date{-63'113'904'000.0}));
  EXPECT_EQ(readOne("\x33" + real(252'423'993'599.5)), Value(Date{252'423'993'599.5}));
  EXPECT_EQ(
      errorOfOne("\x33" + real(252'423'993'600.0)),
      "a.plist: offset 8: date 252423993600 s from 2001, expected one of the years 1 to 9999");
  EXPECT_EQ(errorOfOne("\x33" + real(-63'113'904'000.5)).substr(0, 26),
            "a.plist: offset 8: date -6");
  EXPECT_EQ(errorOfOne("\x33" + real(NAN)),
            "a.plist: offset 8: date nan s from 2001, expected one of the years 1 to 9999");
  EXPECT_EQ(errorOfOne("\x33" + real(INFINITY)),
            "a.plist: offset 8: date +infinity s from 2001, expected one of the years 1 to 9999");
}

TEST(PropertyListBinaryTest, ACountOfFifteenOrMoreFollowsAsAnInteger) {
  const std::string text(300, 'x');
  EXPECT_EQ(readOne("\x5F\x11\x01\x2C" + text), Value(text));
  EXPECT_EQ(readOne("\x5F\x13" + bigEndian(300, 8) + text), Value(text));
  EXPECT_EQ(readOne("\x5F\x10\x01x"), Value("x"));
  EXPECT_EQ(errorOfOne("\x5F\x51x"),
            "a.plist: offset 9: expected a count, an integer of 1, 2, 4 or 8 bytes");
  EXPECT_EQ(errorOfOne("\x5F\x14" + std::string(15, '\0') + "\x01x"),
            "a.plist: offset 9: expected a count, an integer of 1, 2, 4 or 8 bytes");
  EXPECT_EQ(errorOfOne("\x5F"),
            "a.plist: offset 9: expected a count, an integer of 1, 2, 4 or 8 bytes");
  EXPECT_EQ(errorOfOne("\x5F\x13\x01"), "a.plist: offset 9: count of 8 bytes, but only 1 are left");
}

TEST(PropertyListBinaryTest, CountsThatOverflowAreRefused) {
  for (const std::string kind : {"\x4F", "\x5F", "\x6F", "\xAF", "\xDF"}) {
    for (const std::uint64_t count :
         {UINT64_MAX, UINT64_MAX / 2 + 1, UINT64_MAX / 4, std::uint64_t{2}}) {
      const std::string error =
          binaryErrorOf(Layout{{kind + "\x13" + bigEndian(count, 8) + "\x01"}}.bytes());
      EXPECT_NE(error.find(" items of "), error.npos) << error;
    }
  }
}

TEST(PropertyListBinaryTest, ObjectsBeyondTheEndOfTheObjectsAreRefused) {
  EXPECT_EQ(errorOfOne("\x10"), "a.plist: offset 8: integer of 1 bytes, but only 0 are left");
  EXPECT_EQ(errorOfOne("\x13\x01\x02"),
            "a.plist: offset 8: integer of 8 bytes, but only 2 are left");
  EXPECT_EQ(errorOfOne("\x22\x01"),
            "a.plist: offset 8: real or date of 4 bytes, but only 1 are left");
  EXPECT_EQ(errorOfOne("\x52x"),
            "a.plist: offset 8: 2 items of 1 bytes, but only 1 bytes are left");
  EXPECT_EQ(errorOfOne("\x61x"),
            "a.plist: offset 8: 1 items of 2 bytes, but only 1 bytes are left");
}

TEST(PropertyListBinaryTest, ObjectsThatAreNoPropertyListValuesAreRefused) {
  EXPECT_EQ(
      errorOfOne("\x80\x01"),
      "a.plist: offset 8: a UID, which belongs to archives, expected a property list's value");
  EXPECT_EQ(errorOfOne("\xC0"), "a.plist: offset 8: a set, expected a property list's value");
  for (const std::string object :
       {"\x0F", "\x01", "\x0C", "\x21", "\x24", "\x32", "\x70", "\xB0", "\xE0", "\xF0"}) {
    const std::string error = errorOfOne(object + std::string(20, '\0'));
    EXPECT_NE(error.find("expected a property list's value"), error.npos) << error;
  }
}

TEST(PropertyListBinaryTest, IllFormedTextIsRefusedWithItsOffset) {
  EXPECT_EQ(errorOfOne("\x52\x61\xE9"), "a.plist: offset 10: byte 0xe9 in an ASCII string");
  EXPECT_EQ(errorOfOne("\x62\x00\x61\xD8\x3D"s),
            "a.plist: offset 11: half a surrogate pair in a string");
  EXPECT_EQ(errorOfOne("\x62\xD8\x3D\x00\x61"s),
            "a.plist: offset 9: half a surrogate pair in a string");
  EXPECT_EQ(errorOfOne("\x61\xDE\x00"s), "a.plist: offset 9: half a surrogate pair in a string");
}

TEST(PropertyListBinaryTest, KeysMustBeStringsAndOccurOnce) {
  EXPECT_EQ(binaryErrorOf(Layout{{"\xD1\x01\x01", "\x10\x07"}}.bytes()),
            "a.plist: offset 9: a dictionary's key that is no string");
  EXPECT_EQ(binaryErrorOf(Layout{{"\xD2\x01\x02\x03\x03"s, "\x51k", "\x51k", "\x09"}}.bytes()),
            "a.plist: offset 10: key \"k\" occurs twice in its dictionary, expected once");
  EXPECT_EQ(binaryErrorOf(Layout{{"\xD2\x01\x02\x03\x03"s, "\x51k", "\x61\x00k"s, "\x09"}}.bytes()),
            "a.plist: offset 10: key \"k\" occurs twice in its dictionary, expected once");
}

TEST(PropertyListBinaryTest, CyclesAreRefused) {
  EXPECT_EQ(binaryErrorOf(Layout{{"\xA1\x00"s}}.bytes()),
            "a.plist: offset 9: object 0 contains itself");
  EXPECT_EQ(binaryErrorOf(Layout{{"\xA1\x01", "\xD1\x02\x00"s, "\x51k"}}.bytes()),
            "a.plist: offset 12: object 0 contains itself");
}

TEST(PropertyListBinaryTest, ReferencesAndOffsetsMustBeWithinTheList) {
  EXPECT_EQ(binaryErrorOf(Layout{{"\xA1\x02", "\x09"}}.bytes()),
            "a.plist: offset 9: reference to object 2, expected 0 to 1");
  EXPECT_EQ(binaryErrorOf(Layout{{"\x09"}, 1}.bytes()),
            "a.plist: offset 27: top object 1, expected 0 to 0");
  for (const std::size_t offset : {std::size_t{0}, std::size_t{7}, std::size_t{9}, SIZE_MAX / 2}) {
    Layout layout{{"\x09"}, 0, 8};
    std::string bytes = layout.bytes();
    bytes.replace(9, 8, bigEndian(offset, 8));
    EXPECT_EQ(binaryErrorOf(bytes), "a.plist: offset 9: offset " + std::to_string(offset) +
                                        " of object 0, expected 8 to 8");
  }
}

TEST(PropertyListBinaryTest, SizesOfOffsetsAndReferencesMustFit) {
  for (const std::size_t size : {1, 2, 3, 4, 5, 6, 7, 8}) {
    const Layout layout{{"\xA1" + bigEndian(1, size), "\x10\x07"}, 0, size, size};
    EXPECT_EQ(readPropertyList(layout.bytes(), "a"), Value(Array{7})) << size;
  }
  EXPECT_EQ(binaryErrorOf(Layout{{"\x09"}, 0, 2, 0}.bytes()),
            "a.plist: offset 18: references of 0 bytes, expected 1 to 8");
  EXPECT_EQ(binaryErrorOf(Layout{{"\x09"}, 0, 2, 9}.bytes()),
            "a.plist: offset 18: references of 9 bytes, expected 1 to 8");
  EXPECT_EQ(binaryErrorOf(Layout{{"\x52xy"}, 0, 0, 1}.bytes()),
            "a.plist: offset 17: offsets of 0 bytes, expected 1 to 8");
  Layout many{std::vector<std::string>(256, "\x09")};
  EXPECT_TRUE(readPropertyList(many.bytes(), "a"));
  many.objects.push_back("\x09");
  const std::string error = binaryErrorOf(many.bytes());
  EXPECT_NE(error.find("references of 1 bytes can't tell 257 objects apart"), error.npos) << error;
}

TEST(PropertyListBinaryTest, TheTrailerMustAccountForEveryByte) {
  const std::string list = Layout{{"\x09"}}.bytes();
  ASSERT_TRUE(readPropertyList(list, "a"));
  EXPECT_FALSE(readPropertyList(list + "\n", "a"));
  EXPECT_FALSE(readPropertyList(list + std::string(32, '\0'), "a"));
  // Adds bytes between the offset table and the trailer.
  std::string padded = list;
  padded.insert(list.size() - 32, "xx");
  EXPECT_EQ(binaryErrorOf(padded),
            "a.plist: offset 21: 1 objects with offsets of 2 bytes, expected the 4 bytes between "
            "offset table and trailer");
  std::string hugeCount = list;
  hugeCount.replace(list.size() - 24, 8, bigEndian(UINT64_MAX / 2 + 2, 8));
  EXPECT_NE(binaryErrorOf(hugeCount).find("9223372036854775809 objects"), std::string::npos);
  for (const std::uint64_t table :
       {std::uint64_t{0}, std::uint64_t{8}, UINT64_MAX, std::uint64_t{11}}) {
    std::string moved = list;
    moved.replace(list.size() - 8, 8, bigEndian(table, 8));
    EXPECT_NE(binaryErrorOf(moved).find("offset table at "), std::string::npos) << table;
  }
}

TEST(PropertyListBinaryTest, AFileCutAnywhereIsRefused) {
  const Layout layout{{"\xA3\x01\x02\x03", "\x53"s + "abc", "\x10\x07", "\xD1\x01\x02"}};
  const std::string whole = layout.bytes();
  ASSERT_TRUE(readPropertyList(whole, "a"));
  for (std::size_t size = 0; size < whole.size(); ++size) {
    EXPECT_FALSE(readPropertyList(std::string_view(whole).substr(0, size), "a")) << size;
  }
  EXPECT_EQ(binaryErrorOf("bplist00"),
            "a.plist: offset 8: the file ends here, expected a binary property list of at least 42 "
            "bytes");
}

// Each array contains the next one twice, so that the list stands for 2^60 elements.
TEST(PropertyListBinaryTest, SharedChildrenWithTooManyElementsAreRefusedAtOnce) {
  Layout bomb;
  for (char i = 1; i <= 60; ++i) bomb.objects.push_back("\xA2"s + i + i);
  bomb.objects.push_back("\x09");
  bomb.offsetSize = 1;
  const std::string bytes = bomb.bytes();
  EXPECT_LT(bytes.size(), 300u);
  const std::string error = binaryErrorOf(bytes, ErrorCode::kExhausted);
  EXPECT_NE(error.find("more than 1000000 values and keys"), error.npos) << error;
}

TEST(PropertyListBinaryTest, OrdinarySharingIsAccepted) {
  const Layout layout{{"\xA4\x01\x02\x01\x02", "\x53"s + "abc", "\xA2\x01\x01"}};
  const Value pair(Array{"abc", "abc"});
  EXPECT_EQ(readPropertyList(layout.bytes(), "a"), Value(Array{"abc", pair, "abc", pair}));
}

TEST(PropertyListBinaryTest, OverlappingObjectsAreRefused) {
  // Thirty strings of thirty bytes at one place.
  std::string bytes = "bplist00\xAF\x10\x1E";
  for (char i = 1; i <= 30; ++i) bytes += i;
  const std::size_t text = bytes.size();
  bytes += "\x5F\x10\x1E" + std::string(30, 'x');
  const std::size_t table = bytes.size();
  bytes += bigEndian(8, 1);
  for (int i = 0; i < 30; ++i) bytes += bigEndian(text, 1);
  bytes +=
      std::string(6, '\0') + "\x01\x01" + bigEndian(31, 8) + bigEndian(0, 8) + bigEndian(table, 8);
  EXPECT_EQ(binaryErrorOf(bytes),
            "a.plist: offset 41: objects that overlap, expected one behind another");
}

}  // namespace
}  // namespace platform
