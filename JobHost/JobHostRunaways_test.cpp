// Real jobs that do not end when they are asked to, without control groups.

#include <chrono>
#include <csignal>
#include <string>

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "JobHost/JobHostBed_contract.h"

namespace jobhost {
namespace {

using namespace std::chrono_literals;
using platform::UniqueFd;

class JobHostRunaways : public RealJobHostTest {
 protected:
  JobHostRunaways() : RealJobHostTest(Groups::kNone) {}

  // The process whose number comes next.
  UniqueFd nextProcess() {
    const long process = std::stol(lines_.nextLine());
    return UniqueFd(static_cast<int>(::syscall(SYS_pidfd_open, process, 0)));
  }
  static bool hasEnded(const UniqueFd& process) {
    pollfd entry{process.get(), POLLIN, 0};
    return ::poll(&entry, 1, 0) > 0;
  }

  LineChannel lines_{loop(), root_.path("lines")};
  // In a session of its own, and a child of nobody that the job knows. The leader goes on when the
  // runaway has left the group, whose processes are killed when the leader ends.
  const std::string left_ = root_.path("left");
  const std::string runaway_ = "mkfifo " + left_ + "; (setsid sh -c 'trap \"\" TERM; echo $$ >" +
                               lines_.path() + "; echo >" + left_ +
                               "; exec sleep 1000' &); read left <" + left_ + "; ";
};

TEST_F(JobHostRunaways, ARemovalEndsWhatHasLeftTheSession) {
  platform::Dictionary job = scriptJob("com.example.job", runaway_ + "exec sleep 1000");
  job.set("ExitTimeOut", 1);
  ASSERT_TRUE(submit(job));
  const UniqueFd process = nextProcess();
  ASSERT_TRUE(process);
  EXPECT_FALSE(hasEnded(process));
  ASSERT_TRUE(remove("com.example.job"));
  EXPECT_TRUE(hasEnded(process));
}

TEST_F(JobHostRunaways, ARemovalEndsWhatAnEarlierLeaderHasLeft) {
  platform::Dictionary job = scriptJob("com.example.job", runaway_ + "exit 0");
  job.set("KeepAlive", false);
  job.set("RunAtLoad", true);
  job.set("ExitTimeOut", 1);
  ASSERT_TRUE(submit(job));
  const UniqueFd process = nextProcess();
  ASSERT_TRUE(process);
  dropHost();
  startHost();
  EXPECT_FALSE(hasEnded(process));
  ASSERT_TRUE(remove("com.example.job"));
  EXPECT_TRUE(hasEnded(process));
}

TEST_F(JobHostRunaways, AJobThatStopsItselfIsRemovedAtOnce) {
  const platform::Dictionary job = scriptJob("com.example.job", "kill -STOP $$; exec sleep 1000");
  ASSERT_TRUE(submit(job));
  siginfo_t info{};
  ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(pidOf("com.example.job")), &info, WSTOPPED | WNOWAIT),
            0);
  const platform::Instant before = loop().now();
  ASSERT_TRUE(remove("com.example.job"));
  EXPECT_LT(loop().now() - before, 10s);  // The ExitTimeOut is 20 s.
}

}  // namespace
}  // namespace jobhost
