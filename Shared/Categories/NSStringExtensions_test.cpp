#include "Shared/Categories/NSStringExtensions.h"

#include <cstdint>
#include <limits>
#include <set>
#include <string>

#include <gtest/gtest.h>

namespace NSStringExtensions {
namespace {

// Neither time nor result may suffer from the size.
const std::string kEnormous(4'000'000, 'a');

TEST(NSStringExtensionsTest, NilAndTheEmptyTextAreEmpty) {
  EXPECT_TRUE(isNilOrEmpty(std::nullopt));
  EXPECT_TRUE(isNilOrEmpty(""));
  EXPECT_FALSE(isNilOrEmpty(" "));
}

TEST(NSStringExtensionsTest, BlanksTabsAndLineEndsAreWhiteSpace) {
  EXPECT_TRUE(isNilOrWhiteSpace(std::nullopt));
  EXPECT_TRUE(isNilOrWhiteSpace(""));
  EXPECT_TRUE(isNilOrWhiteSpace(" \t\r\n\v\f"));
  EXPECT_TRUE(isNilOrWhiteSpace("\u00a0\u2003\u2028\u3000\u0085"));
  EXPECT_FALSE(isNilOrWhiteSpace(" a "));
  EXPECT_FALSE(isNilOrWhiteSpace("\u200b"));
}

TEST(NSStringExtensionsTest, IllFormedBytesAreNotWhiteSpace) {
  EXPECT_FALSE(isNilOrWhiteSpace("\xc2"));
  EXPECT_FALSE(isNilOrWhiteSpace(" \xff "));
  EXPECT_FALSE(isNilOrWhiteSpace(std::string_view("\0", 1)));
}

TEST(NSStringExtensionsTest, EveryPredicateIsFalseForNil) {
  EXPECT_FALSE(boolValueFor(std::nullopt));
  EXPECT_FALSE(isDecimalDigits(std::nullopt));
  EXPECT_FALSE(isHexadecimalCharacters(std::nullopt));
  EXPECT_FALSE(isAlphaNumeric(std::nullopt));
  EXPECT_FALSE(isBoolean(std::nullopt));
  EXPECT_FALSE(isMD5String(std::nullopt));
  EXPECT_FALSE(isCaseInsensitiveEqualToString(std::nullopt, "a"));
  EXPECT_FALSE(isCaseInsensitiveEqualToString("a", std::nullopt));
  EXPECT_FALSE(isCaseInsensitiveEqualToString(std::nullopt, std::nullopt));
  EXPECT_FALSE(hasPrefixCaseInsensitiveSearch(std::nullopt, "a"));
  EXPECT_FALSE(hasPrefixCaseInsensitiveSearch("a", std::nullopt));
  EXPECT_FALSE(hasSuffixCaseInsensitiveSearch(std::nullopt, "a"));
  EXPECT_FALSE(hasSuffixCaseInsensitiveSearch("a", std::nullopt));
  EXPECT_EQ(unsignedLongLongValue(std::nullopt), 0u);
  EXPECT_EQ(sha256Hash(std::nullopt), std::nullopt);
}

TEST(NSStringExtensionsTest, DecimalDigitsMayBeOfAnyScript) {
  EXPECT_TRUE(isDecimalDigits("0123456789"));
  EXPECT_TRUE(isDecimalDigits("\u0663\uff19"));
  EXPECT_FALSE(isDecimalDigits(""));
  EXPECT_FALSE(isDecimalDigits(" "));
  EXPECT_FALSE(isDecimalDigits("1 2"));
  EXPECT_FALSE(isDecimalDigits("-1"));
  EXPECT_FALSE(isDecimalDigits("x"));
  EXPECT_FALSE(isDecimalDigits("\u00bd"));
  EXPECT_FALSE(isDecimalDigits("1\xff"));
  EXPECT_FALSE(isDecimalDigits(kEnormous));
}

TEST(NSStringExtensionsTest, HexadecimalCharactersAreAscii) {
  EXPECT_TRUE(isHexadecimalCharacters("0123456789ABCDEFabcdef"));
  for (const char* text : {"", " ", "g", "0x1", "a b", "-1", "\uff11", "\u0661", "1\xff"}) {
    EXPECT_FALSE(isHexadecimalCharacters(text)) << text;
  }
  EXPECT_TRUE(isHexadecimalCharacters(kEnormous));
}

TEST(NSStringExtensionsTest, LettersMarksAndNumbersAreAlphanumeric) {
  EXPECT_TRUE(isAlphaNumeric(""));
  EXPECT_TRUE(isAlphaNumeric("aZ09"));
  EXPECT_TRUE(isAlphaNumeric("\u00e9e\u0301\u4e2d\u0663\u00bd\u2167"));
  for (const char* text : {" ", "a b", "a_b", "a-b", ".", "\U0001f600", "a\xff", "\u200b"}) {
    EXPECT_FALSE(isAlphaNumeric(text)) << text;
  }
  EXPECT_TRUE(isAlphaNumeric(kEnormous));
}

TEST(NSStringExtensionsTest, TheEightBooleanWordsAreBooleanInAnyCase) {
  const struct {
    const char* text;
    bool isBoolean;
    bool value;
  } cases[] = {{"true", true, true},       {"TRUE", true, true},        {"YES", true, true},
               {"Yes", true, true},        {"yes", true, true},         {"on", true, true},
               {"On", true, true},         {"1", true, true},           {"false", true, false},
               {"False", true, false},     {"NO", true, false},         {"no", true, false},
               {"off", true, false},       {"Off", true, false},        {"0", true, false},
               {"2", false, false},        {"maybe", false, false},     {"", false, false},
               {" ", false, false},        {" true", false, false},     {"true ", false, false},
               {"01", false, false},       {"truefalse", false, false}, {"y", false, false},
               {"on\u0301", false, false}, {"on\xff", false, false}};
  for (const auto& [text, isOne, value] : cases) {
    EXPECT_EQ(isBoolean(text), isOne) << text;
    EXPECT_EQ(boolValueFor(text), value) << text;
  }
  EXPECT_FALSE(isBoolean(kEnormous));
  // The long s folds to an s.
  EXPECT_TRUE(boolValueFor("ye\u017f"));
}

TEST(NSStringExtensionsTest, EachUuidIsNew) {
  std::set<std::string> seen;
  for (int i = 0; i < 100; ++i) seen.insert(uuidString());
  EXPECT_EQ(seen.size(), 100u);
  EXPECT_EQ(seen.begin()->size(), 36u);
}

TEST(NSStringExtensionsTest, AnUnsignedNumberIsTheLeadingRunOfDigits) {
  const struct {
    const char* text;
    std::uint64_t number;
  } cases[] = {{"42abc", 42},
               {"abc", 0},
               {"", 0},
               {"  \t\n\u00a0"
                "42",
                42},
               {"007", 7},
               {"-1", 0},
               {"+1", 0},
               {"1 2", 1},
               {"0x10", 0},
               {"\u0661", 0},
               {"1\u0661", 1},
               {"\xff"
                "1",
                0},
               {"18446744073709551614", UINT64_MAX - 1},
               {"18446744073709551615", UINT64_MAX},
               {"18446744073709551616", UINT64_MAX},
               {"99999999999999999999999999x", UINT64_MAX}};
  for (const auto& [text, number] : cases) EXPECT_EQ(unsignedLongLongValue(text), number) << text;
  EXPECT_EQ(unsignedLongLongValue(std::string(1'000'000, '9')), UINT64_MAX);
}

TEST(NSStringExtensionsTest, EqualityIgnoresLetterCaseAndComposition) {
  EXPECT_TRUE(isCaseInsensitiveEqualToString("Straße", "STRASSE"));
  EXPECT_TRUE(isCaseInsensitiveEqualToString("\u00c9t\u00e9", "e\u0301te\u0301"));
  EXPECT_TRUE(isCaseInsensitiveEqualToString("", ""));
  EXPECT_TRUE(isCaseInsensitiveEqualToString("\xff", "\xff"));
  EXPECT_TRUE(isCaseInsensitiveEqualToString("k", "\u212a"));
  EXPECT_FALSE(isCaseInsensitiveEqualToString("a", ""));
  EXPECT_FALSE(isCaseInsensitiveEqualToString("a", "b"));
  EXPECT_FALSE(isCaseInsensitiveEqualToString("a", "ab"));
  EXPECT_FALSE(isCaseInsensitiveEqualToString("e", "\u00e9"));
  EXPECT_FALSE(isCaseInsensitiveEqualToString("e", "e\u0301"));
  EXPECT_FALSE(isCaseInsensitiveEqualToString("\xff", "\xfe"));
  // Turkish would differ, but no language applies.
  EXPECT_FALSE(isCaseInsensitiveEqualToString("I", "\u0131"));
  EXPECT_TRUE(isCaseInsensitiveEqualToString("I", "i"));
}

TEST(NSStringExtensionsTest, AnMD5StringIs32HexadecimalDigits) {
  EXPECT_TRUE(isMD5String("d41d8cd98f00b204e9800998ecf8427e"));
  EXPECT_TRUE(isMD5String("D41D8CD98F00B204E9800998ECF8427E"));
  EXPECT_FALSE(isMD5String(std::string(31, 'a')));
  EXPECT_TRUE(isMD5String(std::string(32, 'a')));
  EXPECT_FALSE(isMD5String(std::string(33, 'a')));
  EXPECT_FALSE(isMD5String(std::string(31, 'a') + "g"));
  EXPECT_FALSE(isMD5String(""));
}

TEST(NSStringExtensionsTest, APrefixAndASuffixAreFoundInAnyLetterCase) {
  EXPECT_TRUE(hasPrefixCaseInsensitiveSearch("Foo.KEXT", "fOO"));
  EXPECT_TRUE(hasSuffixCaseInsensitiveSearch("Foo.KEXT", ".kext"));
  EXPECT_TRUE(hasPrefixCaseInsensitiveSearch("abc", "ABC"));
  EXPECT_TRUE(hasSuffixCaseInsensitiveSearch("abc", "ABC"));
  EXPECT_FALSE(hasPrefixCaseInsensitiveSearch("abc", "bc"));
  EXPECT_FALSE(hasSuffixCaseInsensitiveSearch("abc", "ab"));
  EXPECT_FALSE(hasPrefixCaseInsensitiveSearch("ab", "abc"));
  EXPECT_FALSE(hasSuffixCaseInsensitiveSearch("bc", "abc"));
}

TEST(NSStringExtensionsTest, AnEmptyPrefixOrSuffixIsNeverFound) {
  for (const char* text : {"", "a"}) {
    EXPECT_FALSE(hasPrefixCaseInsensitiveSearch(text, ""));
    EXPECT_FALSE(hasSuffixCaseInsensitiveSearch(text, ""));
  }
}

// From the standard's example.
TEST(NSStringExtensionsTest, TheSha256EndsAtTheFirstZeroByte) {
  constexpr char kOfAbc[] = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
  EXPECT_EQ(sha256Hash("abc"), kOfAbc);
  EXPECT_EQ(sha256Hash(std::string_view("abc\0def", 7)), kOfAbc);
  EXPECT_EQ(sha256Hash(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
}

TEST(NSStringExtensionsTest, ATextThatIsNotAsciiHasNoSha256) {
  EXPECT_EQ(sha256Hash("\u00e9"), std::nullopt);
  EXPECT_EQ(sha256Hash("abc\xff"), std::nullopt);
  EXPECT_EQ(sha256Hash(std::string_view("abc\0\xff", 5)), std::nullopt);
  EXPECT_NE(sha256Hash("\x7f"), std::nullopt);
}

}  // namespace
}  // namespace NSStringExtensions
