#include "Tools/servicemanagerctl/ValueJson.h"

#include <clocale>
#include <limits>
#include <string>

#include <gtest/gtest.h>

namespace {

using namespace platform;

TEST(ValueJsonTest, EachKindOfValueHasItsJson) {
  EXPECT_EQ(jsonOf(Dictionary{{"b", true}, {"i", 3}, {"r", 0.5}, {"a", Array{"x"}}}).dump(),
            R"({"b":true,"i":3,"r":0.5,"a":["x"]})");
  EXPECT_EQ(jsonOf(Data{0xff}).dump(), R"("/w==")");
  EXPECT_TRUE(jsonOf(Value()).is_null());
  EXPECT_TRUE(jsonOf(Value::nullMarker()).is_null());
}

TEST(ValueJsonTest, ARealThatJsonLacksIsAWord) {
  constexpr double kInfinity = std::numeric_limits<double>::infinity();
  EXPECT_EQ(jsonOf(Array{kInfinity, -kInfinity, std::numeric_limits<double>::quiet_NaN()}).dump(),
            R"(["inf","-inf","nan"])");
  EXPECT_EQ(jsonOf(Array{-0.0, 1.0}).dump(), "[-0.0,1.0]");
}

TEST(ValueJsonTest, ShownTextIsAsciiOnOneLine) {
  EXPECT_EQ(shown("a\n\033[2J\"\u00e9"), R"("a\n\u001b[2J\"\u00e9")");
  EXPECT_EQ(plain("com.example"), "com.example");
  EXPECT_EQ(plain("\033"), "\\u001b");
}

TEST(ValueJsonTest, ShownTextIsReadableInALocaleOfUtf8) {
  const std::string before = std::setlocale(LC_CTYPE, nullptr);
  if (std::setlocale(LC_CTYPE, "C.UTF-8") == nullptr) GTEST_SKIP() << "there is no C.UTF-8";
  EXPECT_EQ(shown("Grüße, \u65e5\u672c"), "\"Grüße, \u65e5\u672c\"");
  EXPECT_EQ(plain("a\n\033\x7f\u0085"), "a\\n\\u001b\\u007f\\u0085");
  EXPECT_EQ(plain("\u202e\ufeffx"), "\\u202e\\ufeffx");
  EXPECT_EQ(plain("\xff"), "\ufffd");
  std::setlocale(LC_CTYPE, before.c_str());
}

TEST(ValueJsonTest, AMessageRepeats80CharactersAtMost) {
  const std::string most(80, 'x');
  EXPECT_EQ(abridged(most), most);
  EXPECT_EQ(abridged(most + "y"), most + "...");
  std::string accented;
  for (int i = 0; i < 81; ++i) accented += "\u00e9";
  const std::string cut = abridged(accented);
  EXPECT_EQ(cut.size(), 80 * std::string("\\u00e9").size() + 3);
  EXPECT_TRUE(cut.ends_with("\\u00e9..."));
  EXPECT_EQ(abridged("\033"), "\\u001b");
  // Bytes that begin no character are limited, too.
  EXPECT_LT(abridged(std::string(100'000, '\x80')).size(), 3000u);
}

TEST(ValueJsonTest, ProgramsGetJsonAlsoOfIllFormedText) {
  EXPECT_EQ(dumped({{"path", "/\xff"}}), "{\n  \"path\": \"/\ufffd\"\n}\n");
}

TEST(ValueJsonTest, AnObjectHasAVersionAndAnArrayHasNone) {
  EXPECT_EQ(dumpedAnswer({{"a", 1}, {"b", 2}}),
            "{\n  \"a\": 1,\n  \"b\": 2,\n  \"version\": 1\n}\n");
  EXPECT_EQ(dumpedAnswer(nlohmann::ordered_json::array()), "[]\n");
  EXPECT_EQ(dumpedAnswer(nullptr), "null\n");
  EXPECT_EQ(dumpedLine({{"event", "mode"}, {"mode", "normal"}}),
            "{\"version\":1,\"event\":\"mode\",\"mode\":\"normal\"}\n");
}

}  // namespace
