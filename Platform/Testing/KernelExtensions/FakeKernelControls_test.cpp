#include "Platform/Testing/KernelExtensions/FakeKernelControls.h"

#include <chrono>

#include "Platform/KernelExtensions/KernelControls_contract.h"

namespace platform {
namespace {

using namespace std::chrono_literals;

class FakeControlsMachine final : public ControlsMachine {
 public:
  KernelControls& controls() override { return controls_; }
  void offer(const std::string& name, MakeControlHandler makeHandler) override {
    controls_.offer(controlName(name), std::move(makeHandler));
  }
  void hang(const std::string& name) override { controls_.setHanging(name, true); }
  void end(const std::string& name) override { controls_.withdraw(name); }

 private:
  VirtualRunLoop loop_;
  FakeKernelControls controls_{loop_};
};

std::unique_ptr<ControlsMachine> makeControlsMachine() {
  return std::make_unique<FakeControlsMachine>();
}

INSTANTIATE_TEST_SUITE_P(Fake, KernelControlsContract, testing::Values(&makeControlsMachine));

TEST(FakeKernelControlsTest, ARequestToAHungControlTakesASecond) {
  VirtualRunLoop loop;
  FakeKernelControls controls(loop);
  KeepingHandler::Kept kept;
  controls.offer("c", [&] { return std::make_unique<KeepingHandler>(kept); });
  controls.setHanging("c", true);
  const Instant before = loop.now();
  EXPECT_FALSE((*connectToControl(controls, "c"))->setOption(1, Data(1)));
  EXPECT_EQ(loop.now() - before, 1s);
}

TEST(FakeKernelControlsTest, CountsItsClients) {
  VirtualRunLoop loop;
  FakeKernelControls controls(loop);
  KeepingHandler::Kept kept;
  controls.offer("c", [&] { return std::make_unique<KeepingHandler>(kept); });
  auto socket = connectToControl(controls, "c");
  EXPECT_EQ(controls.clients("c"), 1);
  socket->reset();
  EXPECT_EQ(controls.clients("c"), 0);
  EXPECT_EQ(controls.connections("c"), 1);
  EXPECT_EQ(controls.searches("c"), 1);
}

}  // namespace
}  // namespace platform
