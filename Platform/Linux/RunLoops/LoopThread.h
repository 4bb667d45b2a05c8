#pragma once

#include <functional>
#include <future>
#include <memory>
#include <thread>
#include <utility>

#include "Platform/Linux/RunLoops/AsioRunLoop.h"

namespace platform {

// A run loop that serves on a thread of its own, for work that may wait and must not hold up the
// main thread. Objects that belong to the loop's thread may be made before run(), and end after
// this has ended.
class LoopThread {
 public:
  // Fails with kExhausted if the system has no descriptors or no threads left. The thread is there
  // from now on, so that run() can't fail.
  static Result<std::unique_ptr<LoopThread>> create();

  LoopThread(const LoopThread&) = delete;
  LoopThread& operator=(const LoopThread&) = delete;
  // Waits like stopWithin(), without a limit.
  ~LoopThread();

  // The loop may be given to objects at once, and serves from run() on. Callbacks may be posted
  // from any thread.
  AsioRunLoop& loop() { return *loop_; }
  // `atEnd` is called on the thread when the loop has been stopped.
  void run(std::function<void()> atEnd = [] {});
  // Lets the callbacks run that have been posted before, and ends the thread. Does not wait.
  void askToStop();
  // The same, and waits. False if this takes longer: the thread goes on then, and the program can
  // only leave it behind (endProgramNow() in Logging/LogAtEnd.h).
  [[nodiscard]] bool stopWithin(Duration limit);

 private:
  explicit LoopThread(std::unique_ptr<AsioRunLoop> loop) : loop_(std::move(loop)) {}
  void serve();

  std::unique_ptr<AsioRunLoop> loop_;
  bool hasBegun_ = false;
  std::promise<std::function<void()>> begin_;  // the function is empty if the loop is not to run
  std::promise<void> ended_;
  std::thread thread_;
};

}  // namespace platform
