// The job host starts only the file that the daemon has verified. If another one is in its place,
// the daemon verifies it and submits the job again.

#include <chrono>
#include <cstdint>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ServiceManager/Supervision/Supervision_fixture.h"

namespace {

using namespace std::chrono_literals;
using namespace platform;

VerifiedFile file(std::uint64_t inode) {
  VerifiedFile file;
  file.inode = inode;
  file.digestName = "SHA256";
  file.digest = {1};
  return file;
}

class ReplacedProgramsTest : public SupervisionFixture {
 protected:
  ReplacedProgramsTest() {
    useHealth();
    use(catalogue());
    install(1);
  }

  // The daemon and the job host find this file.
  void install(std::uint64_t inode) {
    verified(inode);
    jobs_.setFile(pathOf("agent"), file(inode));
  }
  void verified(std::uint64_t inode) { signatures_.setFile(pathOf("agent"), file(inode)); }

  void useThrottle(int seconds) {
    use(catalogue({{kAgent, Dictionary{{"Products", Array{kProduct}},
                                       {"JobSpec", Dictionary{{"Program", "agent"},
                                                              {"ThrottleInterval", seconds}}}}}}));
    install(1);
  }
  void run() {
    enforcement_.enforceRunningForService(kAgent, {});
    loop_.runReady();
  }
  void endAgent() {
    jobs_.endProcess(kAgent);
    loop_.runReady();
  }

  const std::unique_ptr<RunLoopHandle> observation_ =
      jobs_.observeStarts([this](std::string_view label, Jobs::Start start) {
        if (start == Jobs::Start::kStarted) return enforcement_.jobHasStarted(std::string(label));
        enforcement_.programHasChanged(std::string(label));
      });
};

TEST_F(ReplacedProgramsTest, TheJobHostGetsTheVerifiedFile) {
  run();
  EXPECT_EQ(jobs_.SMJobCopyDictionary(kSMDomainSystemLaunchd, kAgent)[kJobVerifiedProgramKey],
            Value(textOfVerifiedFile(file(1))));
}

TEST_F(ReplacedProgramsTest, AProgramThatIsReplacedBeforeItsStartIsVerifiedAgain) {
  jobs_.setFile(pathOf("agent"), file(2));
  run();
  EXPECT_FALSE(isRunning(kAgent));
  verified(2);
  loop_.advanceBy(ProgramRechecks::kFirstPause);
  EXPECT_TRUE(isRunning(kAgent));
}

TEST_F(ReplacedProgramsTest, AReplacedProgramRunsAfterTheEndOfTheOldOne) {
  run();
  const auto old = jobs_.process(kAgent);
  install(2);
  run();
  EXPECT_EQ(jobs_.process(kAgent), old);
  endAgent();
  EXPECT_FALSE(isRunning(kAgent));
  loop_.advanceBy(ProgramRechecks::kFirstPause);
  EXPECT_TRUE(isRunning(kAgent));
}

TEST_F(ReplacedProgramsTest, AProgramThatIsReplacedDuringAThrottleIsNotLost) {
  useThrottle(3600);
  run();
  endAgent();
  run();
  loop_.advanceBy(30min);  // Nobody looks for the process any more.
  install(2);
  loop_.advanceBy(31min);
  EXPECT_TRUE(isRunning(kAgent));
}

TEST_F(ReplacedProgramsTest, AChangeDuringTheSearchForTheProcessEndsTheSearch) {
  useThrottle(5);
  run();
  endAgent();
  run();
  install(2);
  loop_.advanceBy(5s - 1ns);
  EXPECT_EQ(enforcement_.activityOf(kAgent), ServiceActivity::kAwaitsProcess);
  loop_.advanceBy(1ns);
  EXPECT_TRUE(isRunning(kAgent));
}

// The host reports the refusal of a known job, and it also is the answer to the submission.
TEST_F(ReplacedProgramsTest, ThePauseDoublesWithEachRefusal) {
  run();
  jobs_.setFile(pathOf("agent"), file(2));
  endAgent();
  loop_.advanceBy(ProgramRechecks::kFirstPause);
  ASSERT_THAT(rechecked_, testing::ElementsAre(kAgent));
  loop_.advanceBy(2 * ProgramRechecks::kFirstPause - 1ns);
  EXPECT_THAT(rechecked_, testing::ElementsAre(kAgent));
  loop_.advanceBy(1ns);
  EXPECT_THAT(rechecked_, testing::ElementsAre(kAgent, kAgent));
}

TEST_F(ReplacedProgramsTest, ADamagedReplacementLosesItsJob) {
  run();
  jobs_.setFile(pathOf("agent"), file(2));
  damageProgram("agent");
  endAgent();
  loop_.advanceBy(ProgramRechecks::kFirstPause);
  EXPECT_THAT(jobs_.labels(), testing::IsEmpty());
}

TEST_F(ReplacedProgramsTest, AChangeOfAnotherProductsProgramIsIgnored) {
  enforcement_.programHasChanged("com.example.other");
  loop_.advanceBy(1min);
  EXPECT_THAT(rechecked_, testing::IsEmpty());
}

}  // namespace
