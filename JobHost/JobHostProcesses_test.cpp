// The job host with real processes.

#include <gtest/gtest.h>

#include "JobHost/JobHostBed_contract.h"

namespace jobhost {
namespace {

using platform::Array;
using platform::Dictionary;
using platform::LaunchdError;

class JobHostProcesses : public RealJobHostTest {
 protected:
  LineChannel lines_{loop(), root_.path("lines")};

  // Reports its number and lives until it is told to end.
  std::string reporting() const { return "echo $$ >" + lines_.path() + "; exec sleep 1000"; }
};

TEST_F(JobHostProcesses, ASubmittedJobRunsIsReportedAndRemoved) {
  ASSERT_TRUE(submit(scriptJob("com.example.job", reporting())));
  const auto pid = pidOf("com.example.job");
  EXPECT_EQ(lines_.nextLine(), std::to_string(pid));
  EXPECT_EQ(::getpgid(pid), pid);
  EXPECT_EQ(::getsid(pid), pid);
  EXPECT_TRUE(host_->copy("com.example.job")["LastExitStatus"].isNil());
  ASSERT_TRUE(remove("com.example.job"));
  EXPECT_FALSE(exists(pid));
  EXPECT_TRUE(host_->copy("com.example.job").isNil());
}

TEST_F(JobHostProcesses, AKilledJobIsStartedAgain) {
  ASSERT_TRUE(submit(scriptJob("com.example.job", reporting())));
  const std::string first = lines_.nextLine();
  ::kill(std::stoi(first), SIGKILL);
  const std::string second = lines_.nextLine();
  EXPECT_NE(first, second);
  EXPECT_EQ(second, std::to_string(pidOf("com.example.job")));
  EXPECT_EQ(host_->copy("com.example.job")["LastExitStatus"], platform::Value(SIGKILL));
}

TEST_F(JobHostProcesses, TheNextHostTakesTheJobsOver) {
  ASSERT_TRUE(submit(scriptJob("com.example.job", reporting())));
  const std::string first = lines_.nextLine();
  dropHost();
  startHost();
  EXPECT_EQ(first, std::to_string(pidOf("com.example.job")));
  ::kill(std::stoi(first), SIGKILL);
  const std::string second = lines_.nextLine();
  EXPECT_EQ(second, std::to_string(pidOf("com.example.job")));
}

}  // namespace
}  // namespace jobhost
