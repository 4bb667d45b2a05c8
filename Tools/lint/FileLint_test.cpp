#include "Tools/lint/FileLint.h"

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "Tools/lint/FindingCodes.h"

namespace lint {
namespace {

using Texts = std::vector<std::string>;

std::string plistOf(std::string_view content) {
  return fmt::format("<plist version=\"1.0\">\n<dict>\n{}\n</dict>\n</plist>\n", content);
}

Texts findingsIn(const FileReport& report) {
  Texts texts;
  for (const Finding& finding : report.findings) {
    const auto at = finding.position.value_or(platform::TextPosition{0, 0});
    texts.push_back(
        fmt::format("{}:{} {} {}", at.line, at.column, finding.code->code, finding.message));
  }
  return texts;
}

Texts findingsOf(std::string_view content, const Machine& machine = {}) {
  return findingsIn(checkFile("x.plist", plistOf(content), machine));
}

std::optional<FileKind> kindOfFile(std::string_view content, const std::string& file = "x") {
  return checkFile(file, plistOf(content), {}).kind;
}

TEST(FileLint, TheKindFollowsFromTheKeys) {
  EXPECT_EQ(kindOfFile("<key>Services</key><dict/>"), FileKind::kCatalogue);
  EXPECT_EQ(kindOfFile("<key>Label</key><string>x</string>"), FileKind::kJob);
  EXPECT_EQ(kindOfFile("<key>LogSink</key><string>file</string>"),
            FileKind::kPlatformConfiguration);
  // A misspelt key counts, too.
  EXPECT_EQ(kindOfFile("<key>LogSnk</key><string>file</string>"), FileKind::kPlatformConfiguration);
  EXPECT_EQ(kindOfFile("<key>Colour</key><string>red</string>"), std::nullopt);
}

TEST(FileLint, AnEmptyFileIsThatOfItsName) {
  EXPECT_EQ(kindOfFile("", "etc/platform.plist"), FileKind::kPlatformConfiguration);
  EXPECT_EQ(kindOfFile("", "x.plist"), std::nullopt);
  EXPECT_EQ(findingsOf(""),
            (Texts{"2:1 F003 a dictionary with these keys is neither a catalogue, nor a job, nor "
                   "platform.plist"}));
}

TEST(FileLint, AFileThatCantBeReadIsAFinding) {
  const FileReport report =
      checkFile("x", std::unexpected(platform::Error{platform::ErrorCode::kNotFound, 2, "x"}), {});
  ASSERT_EQ(report.findings.size(), 1u);
  EXPECT_EQ(report.findings[0].code->code, kUnreadable);
}

TEST(FileLint, TheReadersErrorHasItsPlace) {
  EXPECT_EQ(findingsIn(checkFile("a:1:x", std::string("<plist>\n<aray/></plist>"), {})),
            (Texts{"2:1 F002 unexpected element <aray>, expected dict, array, string, integer, "
                   "real, true, false, date, data or key"}));
  EXPECT_EQ(findingsIn(checkFile("x", std::string("bplist00"), {})).size(), 1u);
}

TEST(FileLint, FindingsAreBounded) {
  std::string content = "<key>Label</key><string>x</string>";
  for (std::size_t i = 0; i < 2 * kMostFindings; ++i)
    content += fmt::format("<key>Colour{}</key><true/>\n", i);
  const FileReport report = checkFile("x", plistOf(content), {});
  EXPECT_EQ(report.findings.size(), kMostFindings + 1);
  EXPECT_EQ(report.findings.back().code->code, kTooManyFindings);
}

TEST(JobLint, AJobWithoutAMistakeHasNoFinding) {
  EXPECT_EQ(findingsOf("<key>Label</key><string>x</string><key>Program</key><string>/bin/x</string>"
                       "<key>KeepAlive</key><true/>"),
            Texts());
}

TEST(JobLint, EachMistakeIsNamed) {
  EXPECT_EQ(findingsOf("<key>Label</key><string>x</string>\n<key>Program</key><string>x</string>\n"
                       "<key>Nice</key><string>5</string>"),
            (Texts{"4:19 J001 \"Program\": expected an absolute path of at most 4095 bytes, found "
                   "the string \"x\"",
                   "5:16 J001 \"Nice\": expected an integer from -20 to 20, found the string "
                   "\"5\""}));
}

TEST(JobLint, AnIncompleteJobIsRefused) {
  EXPECT_EQ(findingsOf("<key>Label</key><string>x</string>"),
            (Texts{"2:1 J004 key \"Program\": expected an absolute path here or as the first of "
                   "\"ProgramArguments\", found neither"}));
}

TEST(JobLint, AJobThatNothingStartsIsNamed) {
  constexpr std::string_view kJob =
      "<key>Label</key><string>x</string><key>Program</key><string>/bin/x</string>";
  EXPECT_EQ(findingsOf(kJob), (Texts{"2:1 J005 nothing starts \"x\": it has neither \"RunAtLoad\", "
                                     "nor \"KeepAlive\", nor \"MachServices\""}));
  EXPECT_EQ(
      findingsOf(std::string(kJob) + "<key>MachServices</key><dict><key>s</key><true/></dict>"),
      Texts());
}

TEST(JobLint, AProgramOfAJobNeedsNoSignature) {
  const Machine machine{.program =
                            [](const std::string& path, bool mustBeSigned) {
                              EXPECT_FALSE(mustBeSigned);
                              EXPECT_EQ(path, "/bin/x");
                              return ProgramState{ProgramState::Kind::kMissing, ""};
                            },
                        .propertyList = {}};
  EXPECT_EQ(findingsOf("<key>Label</key><string>x</string><key>RunAtLoad</key><true/>\n"
                       "<key>ProgramArguments</key><array><string>/bin/x</string></array>",
                       machine),
            (Texts{"4:28 X001 the program \"/bin/x\" is missing"}));
}

TEST(PlatformLint, EachMistakeIsNamed) {
  EXPECT_EQ(
      findingsOf("<key>LogSink</key><string>fil</string>\n<key>Loglevel</key><integer>6</integer>\n"
                 "<key>Colour</key><true/>"),
      (Texts{"3:19 P002 \"LogSink\": expected \"journal\", \"syslog\" or \"file\", found "
             "\"fil\"",
             "4:1 P001 unknown key \"Loglevel\" (did you mean \"LogLevel\"?); no program of "
             "the product starts with it",
             "5:1 P001 unknown key \"Colour\"; no program of the product starts with it"}));
}

TEST(PlatformLint, SurprisesAreNamed) {
  EXPECT_EQ(findingsOf("<key>LogLevel</key><integer>2</integer>"),
            (Texts{"3:20 P005 \"LogLevel\" 2 leaves out errors"}));
  EXPECT_EQ(findingsOf("<key>OpenListeners</key>"
                       "<array><string>com.vantor.common.servicemanager.auth</string></array>"),
            (Texts{"3:25 P003 \"OpenListeners\": com.vantor.common.servicemanager.auth is never "
                   "open to everybody; this entry is ignored"}));
  EXPECT_EQ(findingsOf("<key>KernelRelease</key><string>14.5.0</string>"
                       "<key>OSVersion</key><string>10.11</string>"),
            (Texts{"3:68 P004 release 10.11 does not belong to kernel 14.5.0, which is that of "
                   "10.10"}));
}

TEST(FindingCodes, EachIsExplainedOnce) {
  std::vector<std::string_view> codes;
  for (const FindingCode& code : findingCodes()) {
    codes.push_back(code.code);
    EXPECT_TRUE(code.title.ends_with('.')) << code.code;
    EXPECT_TRUE(code.explanation.ends_with('.')) << code.code;
  }
  std::ranges::sort(codes);
  EXPECT_EQ(std::ranges::adjacent_find(codes), codes.end());
  EXPECT_EQ(findingCode("c009"), findingCode(kUndefinedExtension));
  EXPECT_EQ(findingCode("C999"), nullptr);
}

}  // namespace
}  // namespace lint
