#include "Platform/Linux/RunLoops/LoopThread.h"

#include <utility>

namespace platform {

Result<std::unique_ptr<LoopThread>> LoopThread::create() {
  auto loop = AsioRunLoop::create();
  if (!loop) return std::unexpected(std::move(loop.error()));
  return std::unique_ptr<LoopThread>(new LoopThread(std::move(*loop)));
}

LoopThread::~LoopThread() { stop(); }

void LoopThread::run() {
  thread_ = std::thread([this] { loop_->run(); });
}

void LoopThread::stop() {
  loop_->stop();
  if (thread_.joinable()) thread_.join();
}

}  // namespace platform
