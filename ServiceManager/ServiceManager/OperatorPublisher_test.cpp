#include "ServiceManager/ServiceManager/OperatorPublisher.h"

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Platform/Testing/RunLoops/VirtualRunLoop.h"
#include "ServiceManager/Supervision/FakeServiceHealth_fixture.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;

class OperatorPublisherTest : public testing::Test {
 protected:
  std::int64_t published() const { return publisher_.pictures()->latest()->operatingMode; }

  VirtualRunLoop loop_;
  int taken_ = 0;
  std::vector<std::string> reports_;
  std::unique_ptr<ServiceHealth> health_;
  OperatorPublisher publisher_{
      {.runLoop = loop_,
       .pictures = std::make_shared<OperatorPictures>(),
       .take = [this] { return OperatorPicture{.operatingMode = ++taken_}; },
       .health = health_}};
};

TEST_F(OperatorPublisherTest, BeforeTheFirstPublicationThePictureIsEmpty) {
  publisher_.changed();
  loop_.advanceBy(1s);
  EXPECT_EQ(taken_, 0);
  EXPECT_TRUE(publisher_.pictures()->latest()->catalogue->services().isNil());
}

TEST_F(OperatorPublisherTest, AThousandChangesAreOnePublication) {
  publisher_.publish();
  loop_.advanceBy(1s);
  for (int i = 0; i < 1000; ++i) publisher_.changed();
  EXPECT_EQ(published(), 1);  // It is never inside the call.
  loop_.runReady();
  EXPECT_EQ(published(), 2);
  for (int i = 0; i < 1000; ++i) {
    publisher_.changed();
    loop_.advanceBy(1ms);
  }
  EXPECT_LE(published(), 12);
  EXPECT_GE(published(), 11);
}

TEST_F(OperatorPublisherTest, TheLastChangeIsPublishedWithinTheInterval) {
  publisher_.publish();
  publisher_.changed();
  loop_.advanceBy(OperatorPublisher::kInterval - 1ns);
  EXPECT_EQ(published(), 1);
  loop_.advanceBy(1ns);
  EXPECT_EQ(published(), 2);
}

TEST_F(OperatorPublisherTest, ARequestIsAnsweredAfterThePublication) {
  std::int64_t seen = 0;
  publisher_.publish([&] { seen = published(); });
  EXPECT_EQ(seen, 1);
  health_ = std::make_unique<FakeServiceHealth>(reports_);
  publisher_.publish([&] { seen = published(); });
  EXPECT_EQ(seen, 2);
  EXPECT_FALSE(publisher_.pictures()->latest()->healthRecord.isNil());
}

}  // namespace
