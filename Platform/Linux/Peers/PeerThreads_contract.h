#pragma once

#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Linux/Peers/DBusPeerTransport.h"
#include "Platform/Linux/Peers/OtherUsers_fixture.h"
#include "Platform/Linux/RunLoops/AsioRunLoop.h"
#include "Platform/Peers/PeerTransportFixture_contract.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace platform {

// The real transport at both ends. The other end has a thread and a loop of its own, and can't tell
// this from a process of its own.
class PeerThreads final : public PeerTransportHarness {
 public:
  // The other end's accounts.
  explicit PeerThreads(std::shared_ptr<PeerAccounts> accounts = DBusPeerTransport::makeAccounts())
      : there_(*thereLoop_, std::move(accounts), endpoints_.path()) {}
  ~PeerThreads() override {
    goOn();
    there([this](PeerTransport&) { thereLoop_->stop(); });
  }

  AsioRunLoop& loop() override { return *loop_; }
  DBusPeerTransport& here() override { return here_; }
  AsioRunLoop& loopThere() { return *thereLoop_; }
  const TemporaryFolder& folder() const { return folder_; }
  std::string path(std::string_view name) override { return folder_.path(name); }

  void there(const Action& action) override {
    std::promise<void> done;
    thereLoop_->post([&] {
      action(there_);
      done.set_value();
    });
    EXPECT_EQ(done.get_future().wait_for(60s), std::future_status::ready);
  }

  std::unique_ptr<PeerConnection> connectAsStranger(const std::string& path) override {
    if (::geteuid() != 0) return nullptr;
    EXPECT_EQ(::chmod(folder_.path().c_str(), 0711), 0);
    const AsOrdinaryUser stranger;
    auto connection = here_.connect(path, {.timeout = 60s});
    EXPECT_TRUE(connection) << describe(connection.error().error);
    return connection ? std::move(*connection) : nullptr;
  }

  void hang() override {
    std::promise<void> begun;
    mayGoOn_.emplace();
    thereLoop_->post([&begun, wait = mayGoOn_->get_future()] {
      begun.set_value();
      wait.wait();
    });
    begun.get_future().wait();
  }
  void goOn() override {
    if (mayGoOn_) mayGoOn_->set_value();
    mayGoOn_.reset();
  }

  void runUntil(const std::function<bool()>& done) override {
    {
      const std::lock_guard lock(mutex_);
      done_ = &done;
    }
    const auto deadline = loop_->startTimer(60s, RunLoop::Repeat::kOnce, [this] {
      late_ = true;
      loop_->stop();
    });
    while (!late_ && !done()) loop_->run();
    EXPECT_TRUE(done());
    const std::lock_guard lock(mutex_);
    done_ = nullptr;
  }

  void changed() override {
    loop_->post([this] {
      const std::lock_guard lock(mutex_);
      if (done_ != nullptr && (*done_)()) loop_->stop();
    });
  }

 private:
  TemporaryFolder folder_;
  TemporaryFolder endpoints_;
  std::mutex mutex_;
  const std::function<bool()>* done_ = nullptr;
  bool late_ = false;
  std::optional<std::promise<void>> mayGoOn_;
  std::unique_ptr<AsioRunLoop> loop_ = std::move(*AsioRunLoop::create());
  std::unique_ptr<AsioRunLoop> thereLoop_ = std::move(*AsioRunLoop::create());
  DBusPeerTransport here_{*loop_, endpoints_.path()};
  DBusPeerTransport there_;
  std::jthread thread_{[this] { thereLoop_->run(); }};  // Destroyed first.
};

}  // namespace platform
