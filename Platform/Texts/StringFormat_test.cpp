#include "Platform/Texts/StringFormat.h"

#include <gtest/gtest.h>

namespace platform {
namespace {

TEST(StringFormatTest, ConversionsAreThoseOfC) {
  EXPECT_EQ(stringWithFormat("%d %i %u", -1, 7, 4294967295u), "-1 7 4294967295");
  EXPECT_EQ(stringWithFormat("%ld %llu", std::int64_t{-5}, std::uint64_t{18446744073709551615u}),
            "-5 18446744073709551615");
  EXPECT_EQ(stringWithFormat("%02x%02X", 10u, 255u), "0aFF");
  EXPECT_EQ(stringWithFormat("%5d|%-5d|%05d|%+d", 42, 42, 42, 42), "   42|42   |00042|+42");
  EXPECT_EQ(stringWithFormat("%f|%.2f|%g", 1.5, 1.005, 0.1), "1.500000|1.00|0.1");
  EXPECT_EQ(stringWithFormat("%5s|%-5s|%.2s", "ab", "ab", "abcdef"), "   ab|ab   |ab");
  EXPECT_EQ(stringWithFormat("%c%c", 'o', 'k'), "ok");
}

TEST(StringFormatTest, AnUnsignedNumberWithASignedConversionIsReadAsC) {
  EXPECT_EQ(stringWithFormat("%d", 4294967295u), "-1");
  EXPECT_EQ(stringWithFormat("%u", -1), "4294967295");
  EXPECT_EQ(stringWithFormat("%hhx", 0x1234), "34");
  EXPECT_EQ(stringWithFormat("%hd", 65535), "-1");
}

TEST(StringFormatTest, APercentSignIsWrittenTwice) {
  EXPECT_EQ(stringWithFormat("100%%"), "100%");
  EXPECT_EQ(stringWithFormat("%s", "100% %@ %s"), "100% %@ %s");
}

TEST(StringFormatTest, NilIsSpelledOut) {
  EXPECT_EQ(stringWithFormat("%@", Value()), "(null)");
  EXPECT_EQ(stringWithFormat("%@", std::optional<std::string>()), "(null)");
  EXPECT_EQ(stringWithFormat("%s", static_cast<const char*>(nullptr)), "(null)");
  EXPECT_EQ(stringWithFormat("%@", Value::nullMarker()), "<null>");
}

TEST(StringFormatTest, AnObjectIsDescribed) {
  EXPECT_EQ(stringWithFormat("%@/%@", "a", std::string("b")), "a/b");
  EXPECT_EQ(stringWithFormat("%@ %@", Value(true), Value(false)), "1 0");
  EXPECT_EQ(stringWithFormat("%@ %@ %@", Value(-7), Value(0.1), Value(2.0)), "-7 0.1 2");
  EXPECT_EQ(stringWithFormat("%@", Value(Date{788'929'445.75})), "2026-01-01 03:04:05 +0000");
  EXPECT_EQ(stringWithFormat("%@", Value(Data{0, 1, 2, 3, 4})), "<00010203 04>");
  EXPECT_EQ(stringWithFormat("%@", Value(Dictionary{{"a", Array{1, 2}}})), "{a : [1, 2]}");
  EXPECT_EQ(stringWithFormat("%@", std::optional<std::string>("x")), "x");
}

TEST(StringFormatTest, AnExceptionIsItsReasonAndAnErrorItsThreeParts) {
  EXPECT_EQ(stringWithFormat("%@", NSException{kNSPortTimeoutException, "too late", {}}),
            "too late");
  EXPECT_EQ(stringWithFormat("%@", NSError{"CFErrorDomainLaunchd", 6, "no such job"}),
            "Error Domain=CFErrorDomainLaunchd Code=6 \"no such job\"");
}

TEST(StringFormatTest, AnUncheckedFormatIsSafe) {
  const std::array<FormatArgument, 1> text{FormatArgument("text")};
  EXPECT_EQ(formatArguments("%d", text), "text");
  EXPECT_EQ(formatArguments("%f", text), "text");
  EXPECT_EQ(formatArguments("%@ %@", text), "text (null)");
  EXPECT_EQ(formatArguments("100% and %y", text), "100% and %y");
  const std::array<FormatArgument, 1> number{FormatArgument(5)};
  EXPECT_EQ(formatArguments("%s|", number), "5|");
  EXPECT_EQ(formatArguments("%", {}), "%");
  EXPECT_EQ(formatArguments("%5", {}), "%5");
}

TEST(StringFormatTest, AnAbsurdWidthIsBounded) {
  EXPECT_LE(stringWithFormat("%99999999d", 1).size(), 10000u);
}

TEST(StringFormatTest, ATextEndsAtItsLength) {
  EXPECT_EQ(stringWithFormat("%@", std::string("a\0b", 3)), std::string("a\0b", 3));
  EXPECT_EQ(stringWithFormat("%s|", std::string("a\0b", 3)), "a|");
}

}  // namespace
}  // namespace platform
