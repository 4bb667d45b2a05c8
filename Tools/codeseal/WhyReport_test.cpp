#include "Tools/codeseal/WhyReport.h"

#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "Platform/Linux/CodeSigning/CodeSigningBed_fixture.h"

namespace {

using namespace platform;
using testing::AllOf;
using testing::HasSubstr;

class WhyReportTest : public testing::Test {
 protected:
  std::string why(const std::string& path) {
    return asText(explainVerdict(bed_.signatures(), path));
  }

  CodeSigningBed bed_;
};

TEST_F(WhyReportTest, EachStepOfAVerdictIsALine) {
  EXPECT_EQ(why(bed_.makeProgram("bin/program")),
            "  Verdict    intact\n"
            "  Place      trusted\n"
            "  Signature  is there, and well-formed\n"
            "  Signer     CN=Signer\n"
            "  Signed     2025-01-01 00:00:00 UTC\n"
            "  Anchors    1 certificates, 0 lists of revoked ones, 0 revoked by their SHA-256\n");
}

TEST_F(WhyReportTest, EachVerdictHasItsWord) {
  const std::string program = bed_.makeProgram("bin/program");
  EXPECT_THAT(why(bed_.makeFile("bin/unsigned")),
              AllOf(HasSubstr("Verdict    not signed\n"), HasSubstr("carries no signature")));
  ASSERT_EQ(::chmod(bed_.folder().path("bin").c_str(), 0777), 0);
  EXPECT_THAT(why(program), AllOf(HasSubstr("Verdict    damaged\n"),
                                  HasSubstr("Place      the folder "), HasSubstr("Refused    ")));
  ASSERT_EQ(::chmod(bed_.folder().path("bin").c_str(), 0755), 0);
  bed_.folder().write("etc/vantor/revoked/list", "nonsense");
  EXPECT_THAT(why(program),
              AllOf(HasSubstr("Verdict    unknown\n"), HasSubstr("line 1 is no SHA-256")));
}

TEST_F(WhyReportTest, TheBundleAroundAProgramIsAStep) {
  const std::string bundle = bed_.makeBundle("X.bundle");
  const std::string program = bundle + "/Contents/Linux/program";
  EXPECT_THAT(why(program), HasSubstr("Bundle     " + bundle + " is intact\n"));
  bed_.folder().write("X.bundle/Contents/more", "");
  EXPECT_THAT(why(program), HasSubstr("Bundle     " + bundle + "/Contents/more: was added"));
}

}  // namespace
