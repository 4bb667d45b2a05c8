// Jobs whose program was verified and is another file by the time of a start.

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "JobHost/JobHostFixture_contract.h"

namespace jobhost {
namespace {

using namespace platform;
using namespace std::chrono_literals;
using testing::ElementsAre;

class JobHostChangedPrograms : public JobHostTest {
 protected:
  JobHostChangedPrograms() { observe(); }

  void observe() {
    host_->setChangeHandler([this](const std::string& label) { changed_.push_back(label); });
  }
  // The verified file is another one, or it is the verified one again.
  void change() { processes_.failure = Error{ErrorCode::kChanged, 0, "another file"}; }
  void verify() { processes_.failure = std::nullopt; }

  // A job that is restarted at once.
  static Dictionary agent() { return job("agent", {{"ThrottleInterval", 0}}); }
  Value isChanged() { return host_->copy("agent")[kJobProgramChangedKey]; }

  std::vector<std::string> changed_;
};

TEST_F(JobHostChangedPrograms, ANewJobIsRefused) {
  change();
  const auto outcome = submit(agent());
  ASSERT_FALSE(outcome);
  EXPECT_EQ(outcome.error().code, static_cast<int>(LaunchdError::kProgramChanged));
  EXPECT_TRUE(host_->copy("agent").isNil());
}

TEST_F(JobHostChangedPrograms, AKnownJobWaitsForASubmission) {
  ASSERT_TRUE(submit(agent()));
  change();
  endLast();
  EXPECT_THAT(changed_, ElementsAre("agent"));
  EXPECT_EQ(isChanged(), Value(true));
  EXPECT_THAT(host_->labelsOfChangedPrograms(), ElementsAre("agent"));
  const auto attempts = processes_.attempts;
  verify();
  loop_.advanceBy(24h);
  EXPECT_EQ(processes_.attempts, attempts);
  ASSERT_TRUE(submit(agent()));
  EXPECT_EQ(starts(), 2u);
  EXPECT_EQ(isChanged(), Value());
  EXPECT_THAT(host_->labelsOfChangedPrograms(), testing::IsEmpty());
}

TEST_F(JobHostChangedPrograms, ARefusedStartCountsForNoThrottle) {
  const Dictionary throttled = job("agent", {{"ThrottleInterval", 3600}});
  ASSERT_TRUE(submit(throttled));
  change();
  endLast();
  loop_.advanceBy(1h);
  EXPECT_THAT(changed_, ElementsAre("agent"));
  verify();
  ASSERT_TRUE(submit(throttled));
  EXPECT_EQ(starts(), 2u);
}

TEST_F(JobHostChangedPrograms, ASubmissionThatIsChangedAgainIsRefused) {
  ASSERT_TRUE(submit(agent()));
  change();
  endLast();
  const auto outcome = submit(agent());
  ASSERT_FALSE(outcome);
  EXPECT_EQ(outcome.error().code, static_cast<int>(LaunchdError::kProgramChanged));
  EXPECT_EQ(isChanged(), Value(true));
}

TEST_F(JobHostChangedPrograms, TheNextHostDecidesForItself) {
  ASSERT_TRUE(submit(agent()));
  change();
  endLast();
  restartHost();
  EXPECT_EQ(isChanged(), Value(true));
  EXPECT_THAT(host_->labelsOfChangedPrograms(), ElementsAre("agent"));
  verify();
  restartHost();
  EXPECT_EQ(isChanged(), Value());
  EXPECT_EQ(starts(), 2u);
}

TEST_F(JobHostChangedPrograms, ARemovalEndsTheWait) {
  ASSERT_TRUE(submit(agent()));
  change();
  endLast();
  EXPECT_TRUE(removeLater("agent")->value());
  EXPECT_TRUE(host_->copy("agent").isNil());
}

TEST_F(JobHostChangedPrograms, ASubmittersKeyIsNotTheHosts) {
  Dictionary forged = agent();
  forged.set(kJobProgramChangedKey, true);
  ASSERT_TRUE(submit(forged));
  EXPECT_EQ(isChanged(), Value());
}

TEST_F(JobHostChangedPrograms, OnlyTheStateOfAFileIsAccepted) {
  VerifiedFile file;
  file.digestName = "SHA256";
  file.digest = {1};
  const auto parsed =
      parseJobDefinition(Value(job("a", {{kJobVerifiedProgramKey, textOfVerifiedFile(file)}})));
  ASSERT_TRUE(parsed) << describe(parsed.error());
  EXPECT_EQ(parsed->verifiedProgram, file);
  for (const Value& wrong : {Value("1 2"), Value(1), Value(Dictionary())}) {
    const auto refused = parseJobDefinition(Value(job("a", {{kJobVerifiedProgramKey, wrong}})));
    ASSERT_FALSE(refused);
    EXPECT_THAT(refused.error().context,
                testing::HasSubstr("expected the state of a file that was verified"));
  }
}

}  // namespace
}  // namespace jobhost
