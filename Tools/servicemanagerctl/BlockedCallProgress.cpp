#include "Tools/servicemanagerctl/BlockedCallProgress.h"

#include <utility>

#include <unistd.h>

#include "Tools/servicemanagerctl/Output.h"

BlockedCallProgress::BlockedCallProgress(WaitProgress::Wait wait) {
  auto loop = platform::AsioRunLoop::create();
  if (!loop) return;  // The call matters more than its progress.
  loop_ = std::move(*loop);
  thread_ = std::thread([this, waited = std::move(wait)]() mutable {
    const WaitProgress progress(*loop_, std::move(waited), readerOf(STDERR_FILENO), warn);
    loop_->run();
  });
}

BlockedCallProgress::~BlockedCallProgress() {
  if (!loop_) return;
  loop_->stop();
  thread_.join();
}
