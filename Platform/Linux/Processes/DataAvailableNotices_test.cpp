#include "Platform/Linux/Processes/DataAvailableNotices.h"

#include <memory>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "Platform/Linux/Processes/PipeHandle.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"

namespace platform {
namespace {

// Notices without any task.
class DataAvailableNoticesTest : public testing::Test {
 protected:
  std::unique_ptr<PipeHandle> pipe() {
    auto handle = PipeHandle::create(notices_, false);
    EXPECT_TRUE(handle);
    return handle ? std::move(*handle) : nullptr;
  }

  void write(const PipeHandle& handle, std::size_t size) {
    const std::string text(size, 'x');
    EXPECT_EQ(::write(handle.writer(), text.data(), size), static_cast<ssize_t>(size));
  }

  VirtualRunLoop loop_;
  NotificationCenter center_;
  DataAvailableNotices notices_{loop_, center_};
  int posted_ = 0;
  NotificationCenter::Observation observation_ = center_.addObserver(
      NSFileHandleDataAvailableNotification, nullptr, [this](const Notification&) { ++posted_; });
};

TEST_F(DataAvailableNoticesTest, TheRunLoopPostsOneForEachWait) {
  const auto handle = pipe();
  handle->waitForDataInBackgroundAndNotify();
  handle->waitForDataInBackgroundAndNotify();
  loop_.runReady();
  EXPECT_EQ(posted_, 0);
  write(*handle, 1);
  loop_.runReady();
  EXPECT_EQ(posted_, 1);
  loop_.runReady();
  EXPECT_EQ(posted_, 1);
  handle->waitForDataInBackgroundAndNotify();
  loop_.runReady();
  EXPECT_EQ(posted_, 2);
}

TEST_F(DataAvailableNoticesTest, TheEndIsNotifiedOnce) {
  const auto handle = pipe();
  handle->closeWriter();
  handle->waitForDataInBackgroundAndNotify();
  loop_.runReady();
  EXPECT_EQ(posted_, 1);
  EXPECT_TRUE(handle->availableData().empty());
  handle->waitForDataInBackgroundAndNotify();
  loop_.runReady();
  EXPECT_EQ(posted_, 1);
}

TEST_F(DataAvailableNoticesTest, ADestroyedHandleGetsNoNotice) {
  auto handle = pipe();
  write(*handle, 1);
  handle->waitForDataInBackgroundAndNotify();
  handle.reset();
  loop_.runReady();
  EXPECT_EQ(posted_, 0);
}

TEST_F(DataAvailableNoticesTest, ReadingEndsWithTheDataThatWasThereAtItsStart) {
  const auto handle = pipe();
  write(*handle, 40'000);
  EXPECT_EQ(handle->availableData().size(), 40'000u);
  write(*handle, 10);
  EXPECT_EQ(handle->availableData().size(), 0u);
  EXPECT_EQ(handle->availableData().size(), 10u);
  EXPECT_EQ(handle->availableData().size(), 0u);
}

TEST_F(DataAvailableNoticesTest, AChunkIsAtMostThePipesCapacity) {
  const auto handle = pipe();
  ASSERT_GE(::fcntl(handle->writer(), F_SETPIPE_SZ, 256 * 1024), 0);
  write(*handle, PipeHandle::kMaximumChunk + 1);
  EXPECT_EQ(handle->availableData().size(), PipeHandle::kMaximumChunk);
  EXPECT_EQ(handle->availableData().size(), 1u);
  EXPECT_EQ(handle->availableData().size(), 0u);
}

}  // namespace
}  // namespace platform
