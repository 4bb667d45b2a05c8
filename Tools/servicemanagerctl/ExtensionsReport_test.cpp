#include "Tools/servicemanagerctl/ExtensionsReport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace platform;
using testing::HasSubstr;
using testing::Not;

TEST(ExtensionsReportTest, EachExtensionHasItsLine) {
  const Dictionary facts{
      {"other", Dictionary{{"Identifier", "com.vantor.other"},
                           {"IsLoaded", false},
                           {"IsConnected", false},
                           {"IsConfigured", false},
                           {"Services", Array()}}},
      {"net", Dictionary{{"Identifier", "com.vantor.nke.wfk"},
                         {"Path", "/Library/Extensions/net.kext"},
                         {"IsLoaded", true},
                         {"PID", 42},
                         {"IsConnected", true},
                         {"IsConfigured", true},
                         {"Services", Array{"com.example.agent", "com.example.helper"}}}}};
  EXPECT_EQ(tableOfExtensions(facts, Reader::kOther),
            "NAME   IDENTIFIER          INSTALLED  LOADED      CONNECTED  CONFIGURED  USED BY\n"
            "net    com.vantor.nke.wfk  yes        process 42  yes        yes         "
            "com.example.agent, com.example.helper\n"
            "other  com.vantor.other    no         no          no         no          -\n");
}

TEST(ExtensionsReportTest, FaultsAreShownBelowTheTable) {
  const Dictionary facts{{"a", Dictionary{{"Identifier", "i"},
                                          {"Path", "/a.kext"},
                                          {"Fault", "i: was changed\n"},
                                          {"IsLoaded", true},
                                          {"PID", 42},
                                          {"IsConnected", true},
                                          {"IsAnswering", false},
                                          {"IsConfigured", true}}},
                         {"b", Dictionary{{"Identifier", "j"},
                                          {"Fault", "j: there is no such extension"},
                                          {"IsLoaded", true},
                                          {"LoadedPath", "/b.kext"},
                                          {"PID", 0},
                                          {"IsConnected", false},
                                          {"IsConfigured", true}}}};
  EXPECT_EQ(tableOfExtensions(facts, Reader::kOther),
            "NAME  IDENTIFIER  INSTALLED  LOADED      CONNECTED  CONFIGURED  USED BY\n"
            "a     i           damaged    process 42  no answer  yes         -\n"
            "b     j           no         no process  no         yes         -\n"
            "\n"
            "a: i: was changed\\n\n"
            "a: takes connections, but gives no answer within a second\n"
            "b: j: there is no such extension\n"
            "b: is loaded, but takes no connection\n"
            "b: was loaded from /b.kext\n");
}

TEST(ExtensionsReportTest, StatesThatTheJobHostWithholdsAreUnknown) {
  const auto extension = [](bool isKnown) {
    Dictionary facts{{"Identifier", "i"}, {"Path", "/a.kext"}, {"IsConnected", false}};
    if (isKnown) facts.set("IsLoaded", false);
    return facts;
  };
  const Dictionary facts{{"a", extension(true)}, {"b", extension(false)}, {"c", Dictionary()}};
  EXPECT_EQ(tableOfExtensions(facts, Reader::kOther),
            "NAME  IDENTIFIER  INSTALLED  LOADED   CONNECTED  CONFIGURED  USED BY\n"
            "a     i           yes        no       no         -           -\n"
            "b     i           yes        unknown  no         -           -\n"
            "c     -           no         -        -          -           -\n");
  const auto json = jsonOfExtensions(facts);
  EXPECT_EQ(json["a"]["IsLoaded"], false);
  ASSERT_TRUE(json["b"].contains("IsLoaded"));
  EXPECT_TRUE(json["b"]["IsLoaded"].is_null());
  EXPECT_FALSE(
      // The catalogue names it, but it has no identifier to ask for.
      json["c"].contains("IsLoaded"));
  EXPECT_TRUE(isAnyLoadingUnknown(facts));
  EXPECT_FALSE(isAnyLoadingUnknown(Dictionary{{"a", extension(true)}, {"c", Dictionary()}}));
  EXPECT_FALSE(isAnyLoadingUnknown(Value()));
}

TEST(ExtensionsReportTest, NoExtensionsAreReportedInWords) {
  for (const Value& nothing : {Value(), Value(Dictionary()), Value(7)}) {
    EXPECT_EQ(tableOfExtensions(nothing, Reader::kTerminal),
              "The catalogue names no kernel extension.\n");
  }
}

TEST(ExtensionsReportTest, MalformedFactsAreSkippedAndControlCharactersEscaped) {
  const Dictionary facts{{"\033[2J", Dictionary{{"IsLoaded", "yes"}, {"Services", Array{7}}}},
                         {"number", 7}};
  const std::string table = tableOfExtensions(facts, Reader::kOther);
  EXPECT_THAT(table, Not(HasSubstr("\033")));
  EXPECT_THAT(table, HasSubstr("number"));
}

}  // namespace
