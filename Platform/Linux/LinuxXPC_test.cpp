#include "Platform/Linux/LinuxXPC.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <future>
#include <memory>
#include <mutex>
#include <tuple>

#include <gtest/gtest.h>
#include <unistd.h>

#include "Platform/Testing/FakeLogSink.h"
#include "Platform/Testing/TemporaryFolder.h"
#include "Platform/XPC_contract.h"

namespace platform {
namespace {

// Two of them in this process: they can't tell that from two processes.
class LinuxHarness final : public XPCHarness {
 public:
  LinuxHarness() {
    std::filesystem::create_directories(folder_.path("run/vantor/mach"));
    here_ = std::move(*LinuxXPC::make(log_, folder_.path(), std::nullopt));
    there_ = std::move(*LinuxXPC::make(log_, folder_.path(), std::nullopt));
  }

  XPC& here() override { return here_->xpc(); }
  XPC& there() override { return there_->xpc(); }
  void endThere() override { there_.reset(); }
  void end() override {
    there_.reset();
    here_.reset();
  }
  PeerCredentials self() override { return {::getpid(), ::geteuid(), ::getegid()}; }

  void await(const std::function<bool()>& done) override {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, std::chrono::seconds(60), [&] { return done(); });
  }
  void changed() override {
    const std::lock_guard lock(mutex_);
    changed_.notify_all();
  }

 private:
  TemporaryFolder folder_;
  FakeLogSink sink_;
  SystemLog log_{sink_, "test"};
  std::mutex mutex_;
  std::condition_variable changed_;
  std::unique_ptr<LinuxXPC> here_;
  std::unique_ptr<LinuxXPC> there_;
};

std::unique_ptr<XPCHarness> makeHarness() { return std::make_unique<LinuxHarness>(); }

INSTANTIATE_TEST_SUITE_P(DBus, XPCContract, testing::Values(&makeHarness));

// Asks its listener without a pause, from before its XPC's end until after that has begun; and is
// then the last that holds it.
class Busy final : public NSXPCListenerDelegate {
 public:
  bool listener(NSXPCListener& listener, const std::shared_ptr<NSXPCConnection>&) override {
    begun.set_value();
    while (!isEnding) std::ignore = listener.endpoint();
    for (int i = 0; i < kTurns; ++i) std::ignore = listener.endpoint();
    return false;
  }

  std::promise<void> begun;
  std::atomic<bool> isEnding = false;

 private:
  static constexpr int kTurns = 1000;  // The XPC's loop stops at one of the first.
};

TEST(LinuxXPCTest, WhatIsBeingServedMayUseItsListenerWhileTheXPCEnds) {
  TemporaryFolder folder;
  FakeLogSink sink;
  SystemLog log(sink, "test");
  const auto client = std::move(*LinuxXPC::make(log, folder.path(), std::nullopt));
  auto server = std::move(*LinuxXPC::make(log, folder.path(), std::nullopt));
  const auto delegate = std::make_shared<Busy>();
  auto listener = server->xpc().makeAnonymousListener();
  listener->setDelegate(delegate);
  listener->resume();
  const auto connection = client->xpc().makeConnection(listener->endpoint());
  connection->resume();
  delegate->begun.get_future().wait();
  listener.reset();
  delegate->isEnding = true;
  server.reset();
}

}  // namespace
}  // namespace platform
