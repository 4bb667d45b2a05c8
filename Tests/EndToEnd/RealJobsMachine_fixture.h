#pragma once

// A real job host and a client of it, as the machine of the contract of Jobs.

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "Platform/Jobs/JobsFixture_contract.h"
#include "Platform/Linux/Jobs/EmbeddedAuthorization.h"
#include "Platform/Linux/Jobs/EmbeddedJobs.h"
#include "Platform/Linux/Jobs/JobHostClient.h"
#include "Platform/Linux/Jobs/JobHostMessages.h"
#include "Platform/Linux/Peers/DBusPeerTransport.h"
#include "Platform/Linux/RunLoops/AsioRunLoop.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"
#include "Tests/EndToEnd/JobHostRoot.h"

namespace platform {

// A client of a real host. Only its waits for an absent host pass in virtual time.
class RealClient {
 public:
  explicit RealClient(const JobHostRoot& root)
      : client_(transport_, waits_, jobHostSocket(root.folder().path())) {}

  EmbeddedJobs& jobs() { return jobs_; }
  EmbeddedAuthorization& authorization() { return authorization_; }
  VirtualRunLoop& waits() { return waits_; }

  // Runs both loops until `done` holds, for at most a minute.
  void runUntil(const std::function<bool()>& done) {
    const Instant deadline = loop_->now() + std::chrono::minutes(1);
    const auto timer =
        loop_->startTimer(std::chrono::milliseconds(1), RunLoop::Repeat::kEvery, [&] {
          waits_.advanceBy(std::chrono::milliseconds(1));
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
  // `configuration` is more of the root's platform.plist, as XML.
  explicit RealJobsMachine(const std::string& configuration = {}) : root_(configuration) {}

  Jobs& jobs() override { return client_.jobs(); }
  std::string program() override { return root_.program(); }
  std::string stubbornProgram() override { return root_.stubbornProgram(); }
  std::string outputPath() override { return root_.outputPath(); }
  void awaitOutput(const std::string&) override { EXPECT_EQ(root_.nextOutput(), "ready"); }
  std::string unstartableProgram() override { return root_.unstartableProgram(); }
  void kill(const std::string&, ProcessId process) override { killAndAwait(process); }
  bool isRunning(ProcessId process) override { return platform::isRunning(process); }
  void awaitProcessAfter(const std::string& label, ProcessId process) override {
    const Instant deadline = loop_->now() + std::chrono::minutes(1);
    while (loop_->now() < deadline) {
      const Value job = jobs().SMJobCopyDictionary(kSMDomainSystemLaunchd, label);
      if (job["PID"].integer().value_or(process) != process) return;
    }
    ADD_FAILURE() << "the job has no other process";
  }
  void runBriefly() override {
    const Instant until = client_.waits().now() + std::chrono::milliseconds(100);
    client_.runUntil([&] { return client_.waits().now() >= until; });
  }
  void runUntil(const std::function<bool()>& done) override { client_.runUntil(done); }
  void stopHost() override { root_.killHost(); }
  void startHost() override { root_.startHost(); }
  void startHostSoon() override {
    client_.waits().scheduleOutsideEvent(std::chrono::seconds(1), [this] { root_.startHost(); });
  }

 private:
  std::unique_ptr<AsioRunLoop> loop_ = std::move(*AsioRunLoop::create());
  JobHostRoot root_;
  RealClient client_{root_};
};

}  // namespace platform
