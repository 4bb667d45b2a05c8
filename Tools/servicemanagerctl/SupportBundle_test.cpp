#include "Tools/servicemanagerctl/SupportBundle.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "ServiceManager/ServiceManager/OperatorFacts.h"

namespace {

using namespace platform;
using testing::HasSubstr;
using testing::Not;

std::vector<SupportPart> twoParts() {
  return {{.name = "doctor.json", .what = "the faults", .content = "[]\n"},
          {.name = "jobs.json", .what = "the jobs", .whyMissing = "no job host"}};
}

TEST(SupportBundle, TheListNamesWhatIsThereAndWhatIsMissing) {
  EXPECT_EQ(listOf(twoParts()),
            "doctor.json         3  the faults\n"
            "jobs.json     missing  the jobs: no job host\n");
}

TEST(SupportBundle, ProgramsGetTheSameList) {
  const auto json = asJson(twoParts(), "a.tar.gz");
  EXPECT_EQ(json["version"], 1);
  EXPECT_EQ(json["file"], "a.tar.gz");
  EXPECT_EQ(json["parts"][0]["bytes"], 3);
  EXPECT_TRUE(json["parts"][0]["missing"].is_null());
  EXPECT_TRUE(json["parts"][1]["bytes"].is_null());
  EXPECT_EQ(json["parts"][1]["missing"], "no job host");
}

TEST(SupportBundle, TheFirstFileIsTheList) {
  const auto entries = entriesOf(twoParts());
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].name, "vantor-support/CONTENTS.txt");
  EXPECT_THAT(entries[0].content, HasSubstr(listOf(twoParts())));
  EXPECT_EQ(entries[1].name, "vantor-support/doctor.json");
}

TEST(SupportBundle, ALargePartIsLeftOut) {
  auto parts = twoParts();
  parts[0].content.assign(kMaxSupportPart, 'a');
  leaveOutLargeParts(parts);
  EXPECT_FALSE(parts[0].whyMissing);
  parts[0].content += 'a';
  leaveOutLargeParts(parts);
  EXPECT_EQ(parts[0].whyMissing, "it has 16777217 bytes");
  EXPECT_EQ(parts[0].content, "");
}

TEST(SupportBundle, ASwitchHasNoValue) {
  const Dictionary row{{kFactKey, "Enabled"}, {kFactExpected, 1}, {kFactCurrent, "secret"}};
  const Value facts(Dictionary{{kFactLabel, "agent"}, {kFactSwitches, Array{row}}});
  const Value without = withoutSettings(facts);
  EXPECT_EQ(without[kFactLabel], Value("agent"));
  EXPECT_EQ((*without[kFactSwitches].array())[0][kFactCurrent], Value("(left out)"));
  EXPECT_EQ((*without[kFactSwitches].array())[0][kFactKey], Value("Enabled"));
  const Value core(Dictionary{{kFactLabel, "agent"}});
  EXPECT_EQ(withoutSettings(core), core);
}

TEST(SupportBundle, ALineOfTheLogHasNoSecrets) {
  EXPECT_EQ(withoutSecrets("the return switchkey value \"a \"b\"\" of type \"NSString\""),
            "the return switchkey value \"(left out)\" of type \"NSString\"");
  EXPECT_EQ(withoutSecrets("return switchkey value \"secret"),
            "return switchkey value \"(left out)");
  EXPECT_THAT(withoutSecrets("{EnvironmentVariables = {KEY = secret}} Error: x"),
              Not(HasSubstr("secret")));
  EXPECT_EQ(withoutSecrets("Evaluating service: a"), "Evaluating service: a");
}

}  // namespace
