#include "Platform/Linux/RunLoops/LoopThread.h"

#include <system_error>
#include <utility>

namespace platform {

Result<std::unique_ptr<LoopThread>> LoopThread::create() {
  auto loop = AsioRunLoop::create();
  if (!loop) return std::unexpected(std::move(loop.error()));
  std::unique_ptr<LoopThread> made(new LoopThread(std::move(*loop)));
  try {
    made->thread_ = std::thread([self = made.get()] { self->serve(); });
  } catch (const std::system_error& error) {
    return std::unexpected(
        Error{ErrorCode::kExhausted, error.code().value(), "a thread for a run loop"});
  }
  return made;
}

LoopThread::~LoopThread() {
  if (!thread_.joinable()) return;
  if (hasBegun_) {
    askToStop();
  } else {
    begin_.set_value({});
  }
  thread_.join();
}

void LoopThread::serve() {
  const std::function<void()> atEnd = begin_.get_future().get();
  if (!atEnd) return;
  loop_->run();
  atEnd();
  ended_.set_value();
}

void LoopThread::askToStop() {
  loop_->post([this] { loop_->stop(); });
}

void LoopThread::run(std::function<void()> atEnd) {
  hasBegun_ = true;
  begin_.set_value(std::move(atEnd));
}

bool LoopThread::stopWithin(Duration limit) {
  if (!hasBegun_ || !thread_.joinable()) return true;
  askToStop();
  if (ended_.get_future().wait_for(limit) != std::future_status::ready) return false;
  thread_.join();
  return true;
}

}  // namespace platform
