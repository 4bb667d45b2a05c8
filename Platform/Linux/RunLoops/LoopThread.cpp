#include "Platform/Linux/RunLoops/LoopThread.h"

#include <utility>

namespace platform {

Result<std::unique_ptr<LoopThread>> LoopThread::create() {
  auto loop = AsioRunLoop::create();
  if (!loop) return std::unexpected(std::move(loop.error()));
  return std::unique_ptr<LoopThread>(new LoopThread(std::move(*loop)));
}

LoopThread::~LoopThread() {
  if (!thread_.joinable()) return;
  askToStop();
  thread_.join();
}

void LoopThread::askToStop() {
  loop_->post([this] { loop_->stop(); });
}

void LoopThread::run(std::function<void()> atEnd) {
  thread_ = std::thread([this, atEnd = std::move(atEnd)] {
    loop_->run();
    atEnd();
    ended_.set_value();
  });
}

bool LoopThread::stopWithin(Duration limit) {
  if (!thread_.joinable()) return true;
  askToStop();
  if (ended_.get_future().wait_for(limit) != std::future_status::ready) return false;
  thread_.join();
  return true;
}

}  // namespace platform
