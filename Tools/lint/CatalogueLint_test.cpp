#include "Tools/lint/CatalogueLint.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "Platform/PropertyLists/PropertyList.h"
#include "Tools/lint/CleanCatalogue_fixture.h"
#include "Tools/lint/FileLint.h"

namespace lint {
namespace {

using Lines = std::vector<std::string>;

TEST(CatalogueLint, ACleanCatalogueHasNoFinding) {
  const FileReport report = checkFile("Service.plist", std::string(kCleanCatalogue), {});
  EXPECT_EQ(linesOf(report), Lines());
  EXPECT_EQ(report.kind, FileKind::kCatalogue);
}

TEST(CatalogueLint, ABinaryCatalogueHasPathsInsteadOfLines) {
  std::string text(kCleanCatalogue);
  text.replace(text.find("<string>files"), 13, "<string>filez");
  const auto value = platform::readPropertyList(text, "x");
  ASSERT_TRUE(value);
  const auto bytes = platform::writePropertyList(*value, platform::PropertyListFormat::kBinary);
  ASSERT_TRUE(bytes);
  const FileReport report =
      checkFile("Service.plist", std::string(bytes->begin(), bytes->end()), {});
  ASSERT_EQ(report.findings.size(), 2u);
  EXPECT_FALSE(report.findings[0].position);
  EXPECT_EQ(report.findings[0].code->code, kUndefinedExtension);
  EXPECT_EQ(report.findings[0].path, "Services/com.example.filter/KernelExtensions/0");
}

Machine machineWith(ProgramState state) {
  return {.program = [state](const std::string&, bool) { return state; }, .propertyList = {}};
}

TEST(CatalogueLint, ProgramsAreCheckedAsTheServiceManagerDoes) {
  std::vector<std::string> asked;
  const Machine machine{.program =
                            [&](const std::string& path, bool mustBeSigned) {
                              EXPECT_TRUE(mustBeSigned);
                              asked.push_back(path);
                              return ProgramState{};
                            },
                        .propertyList = {}};
  EXPECT_EQ(linesOf(checkFile("x", std::string(kCleanCatalogue), machine)), Lines());
  EXPECT_EQ(asked, (Lines{"/usr/lib/example/configd", "/usr/lib/example/filter"}));
}

TEST(CatalogueLint, EachStateOfAProgramHasItsCode) {
  using Kind = ProgramState::Kind;
  const auto codeOf = [](Kind kind) {
    const FileReport report =
        checkFile("x", std::string(kCleanCatalogue), machineWith({kind, "the reason"}));
    EXPECT_EQ(report.findings.size(), 2u);
    EXPECT_EQ(report.findings.front().position->line, 23u);
    return report.findings.front().code->code;
  };
  EXPECT_EQ(codeOf(Kind::kMissing), kMissingProgram);
  EXPECT_EQ(codeOf(Kind::kNoProgram), kNoProgram);
  EXPECT_EQ(codeOf(Kind::kUnsigned), kUnsignedProgram);
  EXPECT_EQ(codeOf(Kind::kRefused), kRefusedProgram);
  EXPECT_EQ(codeOf(Kind::kUnchecked), kUncheckedPrograms);
}

TEST(CatalogueLint, AFolderOfAnotherMachineIsOneNote) {
  const FileReport report =
      checkFile("x", std::string(kCleanCatalogue), machineWith({ProgramState::Kind::kNotHere, ""}));
  EXPECT_EQ(linesOf(report),
            (Lines{"7:3 note X005: \"/usr/lib/example\" is not on this machine, so "
                   "the programs were not looked at"}));
}

TEST(CatalogueLint, TheProductMustBeKnown) {
  using platform::Dictionary;
  using platform::Result;
  using platform::Value;
  Result<Value> list = Value(Dictionary{{"GUID", "71C0E5B9-2A8D-4F36-B0E4-9D63A1F2C875"}});
  const Machine machine{.program = {}, .propertyList = [&](const std::string& path) {
                          EXPECT_EQ(path, "/usr/lib/example/product.plist");
                          return std::optional(list);
                        }};
  const auto check = [&] { return linesOf(checkFile("x", std::string(kCleanCatalogue), machine)); };
  EXPECT_EQ(check(), Lines());
  list = Value(Dictionary{{"GUID", "x"}});
  EXPECT_EQ(check(), (Lines{"9:3 error C026: /usr/lib/example/product.plist has the GUID \"x\", "
                            "which is that of no product"}));
  list = Value(Dictionary{});
  EXPECT_EQ(check(), (Lines{"9:3 error C026: /usr/lib/example/product.plist has no string "
                            "\"GUID\""}));
}

}  // namespace
}  // namespace lint
