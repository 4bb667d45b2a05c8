#include "Tools/servicemanagerctl/SettingsReport.h"

#include <limits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace platform;
using testing::HasSubstr;
using SettingType = Value::Type;

// Compares value and type.
void expectParsed(const std::string& text, const std::optional<std::string>& type,
                  const Value& current, const Value& expected) {
  SCOPED_TRACE(text);
  const auto parsed = parseSetting(text, type, current);
  ASSERT_TRUE(parsed) << parsed.error();
  EXPECT_EQ(*parsed, expected);
  EXPECT_EQ(parsed->type(), expected.type());
}

TEST(SettingsReportTest, AnUntypedWordHasTheTypeThatItLooksLike) {
  expectParsed("true", {}, {}, true);
  expectParsed("false", {}, {}, false);
  expectParsed("1", {}, {}, 1);
  expectParsed("-7", {}, {}, -7);
  expectParsed("1.0", {}, {}, 1.0);
  expectParsed("1e3", {}, {}, 1000.0);
  expectParsed("on", {}, {}, "on");
  expectParsed("", {}, {}, "");
  expectParsed("12 apples", {}, {}, "12 apples");
}

TEST(SettingsReportTest, AnUntypedWordTakesTheTypeThatTheSettingHas) {
  expectParsed("1", {}, true, true);
  expectParsed("off", {}, true, false);
  expectParsed("1", {}, "text", "1");
  expectParsed("1", {}, 2.5, 1.0);
  expectParsed("AQI=", {}, Data{}, Data{1, 2});
  EXPECT_EQ(parseSetting("1", {}, Array{1, 2}).error(),
            "a value of type array can't be given in one word");
  EXPECT_EQ(parseSetting("1", {}, Dictionary{}).error(),
            "a value of type dictionary can't be given in one word");
  expectParsed("1", "integer", Array{1, 2}, 1);
  EXPECT_EQ(parseSetting("text", {}, 5).error(), "\"text\" is not an integer of 64 bits");
}

TEST(SettingsReportTest, AnUntypedNumberOutOfRangeIsRefused) {
  expectParsed("9223372036854775807", {}, {}, std::numeric_limits<std::int64_t>::max());
  expectParsed("-9223372036854775808", {}, {}, std::numeric_limits<std::int64_t>::min());
  expectParsed("1e308", {}, {}, 1e308);
  const auto errorOf = [](const char* text) {
    const auto parsed = parseSetting(text, std::nullopt, {});
    return parsed ? "accepted" : parsed.error();
  };
  EXPECT_EQ(errorOf("9223372036854775808"), "\"9223372036854775808\" is not an integer of 64 bits");
  EXPECT_EQ(errorOf("-9223372036854775809"),
            "\"-9223372036854775809\" is not an integer of 64 bits");
  EXPECT_EQ(errorOf("0x10000000000000000"), "\"0x10000000000000000\" is not an integer of 64 bits");
  EXPECT_EQ(errorOf("1e309"), "\"1e309\" is not a number of 64 bits");
}

TEST(SettingsReportTest, AnUntypedWordThatNamesANumberIsText) {
  for (const char* word : {"inf", "-Infinity", "nan", "-", ".", "1.2.3", "--5"}) {
    expectParsed(word, {}, {}, word);
  }
  expectParsed("inf", "real", {}, std::numeric_limits<double>::infinity());
  expectParsed("-inf", {}, 1.0, -std::numeric_limits<double>::infinity());
}

TEST(SettingsReportTest, ATypeOfTheCommandLineComesFirst) {
  expectParsed("1", "string", 5, "1");
  expectParsed("1", "boolean", 5, true);
  expectParsed("No", "boolean", {}, false);
  expectParsed("1", "integer", "text", 1);
  expectParsed("1", "real", {}, 1.0);
  expectParsed("1", "number", {}, 1);
  expectParsed("1.5", "number", {}, 1.5);
  expectParsed("AQI=", "data", {}, Data{1, 2});
  expectParsed("", "data", {}, Data{});
}

TEST(SettingsReportTest, AWordOfAnotherTypeIsRefusedWithWhatWasExpected) {
  const auto errorOf = [](const char* text, const char* type) {
    const auto parsed = parseSetting(text, type, {});
    return parsed ? "accepted" : parsed.error();
  };
  EXPECT_EQ(errorOf("maybe", "boolean"), "\"maybe\" is not true or false");
  EXPECT_EQ(errorOf("1.5", "integer"), "\"1.5\" is not an integer of 64 bits");
  EXPECT_EQ(errorOf("9223372036854775807", "integer"), "accepted");
  EXPECT_EQ(errorOf("9223372036854775808", "integer"),
            "\"9223372036854775808\" is not an integer of 64 bits");
  EXPECT_EQ(errorOf("x", "real"), "\"x\" is not a number");
  EXPECT_EQ(errorOf("\033[2J", "data"), "\"\\u001b[2J\" is not data in base 64");
}

TEST(SettingsReportTest, TheTableTellsTypeAndOrigin) {
  const std::vector<SettingState> settings{
      {"Mode", "strict", false}, {"WebFilterEnabled", 1, true}, {"line\n", Data{1, 2}, false}};
  EXPECT_EQ(asTable(settings, "common", Reader::kOther),
            "KEY               TYPE        SET      VALUE\n"
            "Mode              string      yes      \"strict\"\n"
            "WebFilterEnabled  integer     default  1\n"
            "line\\n            data        yes      \"AQI=\"\n");
  EXPECT_EQ(asTable({}, "common", Reader::kOther), "common has no settings.\n");
}

TEST(SettingsReportTest, ProgramsGetTheSame) {
  EXPECT_EQ(asJson(SettingState{"Mode", true, false}).dump(),
            R"({"key":"Mode","type":"boolean","value":true,"default":false})");
  EXPECT_EQ(asJson(SettingState{"Mode", Value(), false}).dump(),
            R"({"key":"Mode","type":"none","value":null,"default":false})");
  EXPECT_EQ(asJson(std::vector<SettingState>{}).dump(), "[]");
}

TEST(SettingsReportTest, ASentenceSaysWhatTheServerHolds) {
  EXPECT_EQ(asSentence({"Mode", "strict", false}, "common"),
            "Mode of common is \"strict\" (string).\n");
  EXPECT_EQ(asSentence({"Mode", 1.0, true}, "common"),
            "Mode of common is 1.0 (real, by default).\n");
  EXPECT_EQ(asSentence({"Mode", Value(), false}, "common"), "Mode of common is not set.\n");
}

TEST(SettingsReportTest, EveryKindHasAName) {
  EXPECT_EQ(typeName(platform::Date{1}), "date");
  EXPECT_EQ(typeName(Array{}), "array");
  EXPECT_EQ(typeName(Dictionary{}), "dictionary");
  EXPECT_EQ(typeName(Value::nullMarker()), "null");
  EXPECT_EQ(typeName(Value()), "none");
}

}  // namespace
