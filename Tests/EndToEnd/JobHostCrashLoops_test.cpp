// The real job host with jobs that end as soon as they are started, without a throttle.

#include <chrono>
#include <memory>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "Platform/Linux/Jobs/EmbeddedJobs.h"
#include "Platform/Linux/Jobs/JobHostClient.h"
#include "Platform/Linux/Jobs/JobHostMessages.h"
#include "Platform/Linux/Peers/DBusPeerTransport.h"
#include "Platform/Linux/RunLoops/AsioRunLoop.h"
#include "Tests/EndToEnd/JobHostRoot.h"

namespace platform {
namespace {

using namespace std::chrono_literals;

// A host that starves its clients answers nothing for minutes.
constexpr Duration kAnswerTime = 10s;

TEST(JobHostWithCrashLoops, AnswersAndStops) {
  JobHostRoot root;  // Its end stops the host by SIGTERM, for which it gets a minute.
  const std::unique_ptr<AsioRunLoop> loop = std::move(*AsioRunLoop::create());
  DBusPeerTransport transport(*loop);
  JobHostClient client(transport, *loop, jobHostSocket(root.folder().path()));
  EmbeddedJobs jobs(client);
  for (int i = 0; i < 8; ++i) {
    const Dictionary job{{"Label", "com.example.crash" + std::to_string(i)},
                         {"Program", "/bin/true"},
                         {"KeepAlive", true},
                         {"ThrottleInterval", 0}};
    ASSERT_TRUE(jobs.SMJobSubmit(kSMDomainSystemLaunchd, job, nullptr));
  }
  int starts = 0;
  const auto observation = jobs.observeStarts([&](std::string_view, Jobs::Start) {
    const auto states = client.call(kCopyJobStatesMessage, {}, kAnswerTime);
    EXPECT_TRUE(states) << describe(states.error());
    if (++starts >= 64 || !states) loop->stop();
  });
  const auto deadline = loop->startTimer(1min, RunLoop::Repeat::kOnce, [&] {
    ADD_FAILURE() << "only " << starts << " starts";
    loop->stop();
  });
  loop->run();
  const Dictionary healthy{
      {"Label", "com.example.healthy"}, {"Program", root.program()}, {"KeepAlive", true}};
  ASSERT_TRUE(jobs.SMJobSubmit(kSMDomainSystemLaunchd, healthy, nullptr));
  EXPECT_TRUE(jobs.SMJobRemove(kSMDomainSystemLaunchd, "com.example.healthy", nullptr, true));
}

}  // namespace
}  // namespace platform
