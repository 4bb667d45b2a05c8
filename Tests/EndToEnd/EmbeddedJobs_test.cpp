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

namespace platform {
namespace {

using namespace std::chrono_literals;

// A client of a real host. Only its waits for an absent host pass in virtual time.
class Client {
 public:
  explicit Client(const JobHostRoot& root)
      : client_(transport_, waits_, jobHostSocket(root.folder().path())) {}

  EmbeddedJobs& jobs() { return jobs_; }
  EmbeddedAuthorization& authorization() { return authorization_; }
  VirtualRunLoop& waits() { return waits_; }

  // Runs both loops until `done` holds, for at most a minute.
  void runUntil(const std::function<bool()>& done) {
    const Instant deadline = loop_->now() + 1min;
    const auto timer = loop_->startTimer(1ms, RunLoop::Repeat::kEvery, [&] {
      waits_.advanceBy(1ms);
      if (done() || loop_->now() >= deadline) loop_->stop();
    });
    loop_->run();
    EXPECT_TRUE(done());
  }

 private:
  std::unique_ptr<AsioRunLoop> loop_ = std::move(*AsioRunLoop::create());
  DBusPeerTransport transport_{*loop_};
  VirtualRunLoop waits_;
  JobHostClient client_;
  EmbeddedJobs jobs_{client_};
  EmbeddedAuthorization authorization_{client_};
};

class RealJobsMachine final : public JobsMachine {
 public:
  Jobs& jobs() override { return client_.jobs(); }
  std::string program() override { return root_.program(); }
  std::string stubbornProgram() override { return root_.stubbornProgram(); }
  std::string outputPath() override { return root_.outputPath(); }
  void awaitOutput(const std::string&) override { EXPECT_EQ(root_.nextOutput(), "ready"); }
  std::string unstartableProgram() override { return root_.unstartableProgram(); }
  void kill(const std::string&, ProcessId process) override { killAndAwait(process); }
  bool isRunning(ProcessId process) override { return platform::isRunning(process); }
  void awaitProcessAfter(const std::string& label, ProcessId process) override {
    const Instant deadline = loop_->now() + 1min;
    while (loop_->now() < deadline) {
      const Value job = jobs().SMJobCopyDictionary(kSMDomainSystemLaunchd, label);
      if (job["PID"].integer().value_or(process) != process) return;
    }
    ADD_FAILURE() << "the job has no other process";
  }
  void runBriefly() override {
    const Instant until = client_.waits().now() + 100ms;
    client_.runUntil([&] { return client_.waits().now() >= until; });
  }
  void runUntil(const std::function<bool()>& done) override { client_.runUntil(done); }
  void stopHost() override { root_.killHost(); }
  void startHost() override { root_.startHost(); }
  void startHostSoon() override {
    client_.waits().scheduleOutsideEvent(1s, [this] { root_.startHost(); });
  }

 private:
  std::unique_ptr<AsioRunLoop> loop_ = std::move(*AsioRunLoop::create());
  JobHostRoot root_;
  Client client_{root_};
};

std::unique_ptr<JobsMachine> makeRealJobsMachine() { return std::make_unique<RealJobsMachine>(); }

INSTANTIATE_TEST_SUITE_P(Embedded, JobsContract, testing::Values(&makeRealJobsMachine));

class RealOffice final : public AuthorizationOffice {
 public:
  Authorization& authorization() override { return client_.authorization(); }
  void open() override { root_.startHost(); }
  void close() override { root_.killHost(); }

 private:
  JobHostRoot root_;
  Client client_{root_};
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
