#include "Platform/XPC.h"

#include <optional>

#include "Platform/Testing/FakeLogSink.h"
#include "Platform/Testing/FakeXPC.h"
#include "Platform/XPC_contract.h"

namespace platform {
namespace {

class FakeHarness final : public XPCHarness {
 public:
  XPC& here() override { return here_->xpc; }
  XPC& there() override { return there_->xpc; }
  void endThere() override { there_->transport.die(); }
  void end() override {
    loop_.runReady();
    there_.reset();
    here_.reset();
    loop_.runReady();
  }
  PeerCredentials self() override { return {100, 501, 20}; }
  void await(const std::function<bool()>& done) override {
    loop_.runReady();
    EXPECT_TRUE(done());
  }
  void changed() override {}

 private:
  VirtualRunLoop loop_;
  FakeLogSink sink_;
  SystemLog log_{sink_, "test"};
  FakePeerNetwork network_{loop_};
  std::optional<FakeXPC> here_{std::in_place, network_, PeerCredentials{100, 501, 20}, log_};
  std::optional<FakeXPC> there_{std::in_place, network_, PeerCredentials{200, 0, 0}, log_};
};

std::unique_ptr<XPCHarness> makeHarness() { return std::make_unique<FakeHarness>(); }

INSTANTIATE_TEST_SUITE_P(Fake, XPCContract, testing::Values(&makeHarness));

}  // namespace
}  // namespace platform
