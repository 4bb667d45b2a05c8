#include "Platform/Linux/Jobs/EmbeddedJobs.h"

#include <cerrno>
#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "Platform/Jobs/Authorization_contract.h"
#include "Platform/Jobs/Jobs_contract.h"
#include "Platform/Linux/Jobs/EmbeddedAuthorization.h"
#include "Platform/Linux/Jobs/JobHostClient.h"
#include "Platform/Linux/Jobs/JobHostMessages.h"
#include "Platform/Linux/Peers/DBusPeerTransport.h"
#include "Platform/Linux/RunLoops/AsioRunLoop.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"
#include "Tests/EndToEnd/JobHostRoot.h"
#include "Tests/EndToEnd/RealJobsMachine_fixture.h"

namespace platform {
namespace {

using namespace std::chrono_literals;

std::unique_ptr<JobsMachine> makeRealJobsMachine() { return std::make_unique<RealJobsMachine>(); }

INSTANTIATE_TEST_SUITE_P(Embedded, JobsContract, testing::Values(&makeRealJobsMachine));

class RealOffice final : public AuthorizationOffice {
 public:
  Authorization& authorization() override { return client_.authorization(); }
  void open() override { root_.startHost(); }
  void close() override { root_.killHost(); }

 private:
  JobHostRoot root_;
  RealClient client_{root_};
};

std::unique_ptr<AuthorizationOffice> makeOffice() { return std::make_unique<RealOffice>(); }

INSTANTIATE_TEST_SUITE_P(Embedded, AuthorizationContract, testing::Values(&makeOffice));

TEST(HungJobHostTest, CostsOneTimeOutUntilItContinues) {
  JobHostRoot root;
  const std::unique_ptr<AsioRunLoop> loop = std::move(*AsioRunLoop::create());
  DBusPeerTransport transport(*loop);
  JobHostClient client(transport, *loop, jobHostSocket(root.folder().path()));
  const auto ask = [&] { return client.call(kCopyJobStatesMessage, {}, 50ms); };
  ASSERT_TRUE(client.call(kCopyJobStatesMessage, {}, 1min));
  root.stopHost();
  const Instant start = loop->now();
  for (int i = 0; i < 1000; ++i) {
    const auto answer = ask();
    ASSERT_FALSE(answer);
    EXPECT_EQ(answer.error().osError, ETIMEDOUT);
  }
  EXPECT_LT(loop->now() - start, 1000 * 50ms);
  root.continueHost();
  const auto poll = loop->startTimer(1ms, RunLoop::Repeat::kEvery, [&] {
    if (client.call(kCopyJobStatesMessage, {}, 1min)) loop->stop();
  });
  loop->run();
}

}  // namespace
}  // namespace platform
