#include "Tools/servicemanagerctl/LintReport.h"

#include <gtest/gtest.h>

namespace lint {
namespace {

FileReport report() {
  return {.file = "a b.plist",
          .kind = FileKind::kCatalogue,
          .findings = {{"a b.plist", platform::TextPosition{3, 5}, "Services", findingCode("C001"),
                        "wrong\n\x1b[31m"},
                       {"a b.plist", std::nullopt, "Features/x", findingCode("C013"), "unused"}}};
}

TEST(LintReport, ALineHasPlaceSeverityAndCode) {
  EXPECT_EQ(asText({report()}),
            "a b.plist:3:5: error C001: wrong\\n\\u001b[31m\n"
            "a b.plist: note C013: Features/x: unused\n");
  EXPECT_EQ(summary({report()}), "1 file: 1 error, 0 warnings, 1 note");
}

TEST(LintReport, WarningsFailOnlyIfStrict) {
  EXPECT_FALSE(pass({report()}, false));
  const auto with = [](const char* code) {
    FileReport only{.file = "x", .kind = {}, .findings = {}};
    only.findings.push_back({"x", std::nullopt, "", findingCode(code), ""});
    return std::vector<FileReport>{only};
  };
  EXPECT_TRUE(pass(with("F006"), false));
  EXPECT_FALSE(pass(with("F006"), true));
  EXPECT_TRUE(pass(with("C013"), true));
}

TEST(LintReport, JsonHasAVersion) {
  const auto json = asJson({report()});
  EXPECT_EQ(json["version"], 1);
  EXPECT_EQ(json["files"][0]["kind"], "catalogue");
  EXPECT_EQ(json["findings"][0]["line"], 3);
  EXPECT_EQ(json["findings"][1]["line"], nullptr);
  EXPECT_EQ(json["findings"][1]["path"], "Features/x");
  EXPECT_EQ(json["errors"], 1);
}

TEST(LintReport, SarifNamesTheRuleAndThePlace) {
  const auto json = asSarif({report()});
  EXPECT_EQ(json["version"], "2.1.0");
  const auto& run = json["runs"][0];
  EXPECT_EQ(run["tool"]["driver"]["rules"].size(), findingCodes().size());
  const auto& result = run["results"][0];
  EXPECT_EQ(result["ruleId"], "C001");
  EXPECT_EQ(result["level"], "error");
  const auto& place = result["locations"][0]["physicalLocation"];
  EXPECT_EQ(place["artifactLocation"]["uri"], "a%20b.plist");
  EXPECT_EQ(place["region"]["startLine"], 3);
  EXPECT_FALSE(run["results"][1]["locations"][0]["physicalLocation"].contains("region"));
}

}  // namespace
}  // namespace lint
