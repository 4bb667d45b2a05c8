#include "ServiceManager/ServiceManager/TakeOver.h"

#include <cstddef>
#include <optional>

#include "ServiceManager/Supervision/Supervision_fixture.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;

// The take-over beside an enforcement, without the daemon that evaluates.
class TakeOverTest : public SupervisionFixture {
 protected:
  void begin() {
    takeOver_->begin();
    takeOver_->whenReady([this] { ++ready_; });
  }
  void expectEnd() {
    EXPECT_FALSE(takeOver_->goesOn());
    EXPECT_EQ(ready_, 1);
    EXPECT_EQ(ends_, 1);
    EXPECT_EQ(workAtEnd_, 0u);
  }

  EvaluationTimers timers_{loop_};
  bool isDeciding_ = false;
  int ends_ = 0;
  std::size_t workAtEnd_ = 0;  // services with work
  int ready_ = 0;
  std::optional<TakeOver> takeOver_{
      std::in_place, TakeOver::Environment{.timers = timers_,
                                           .enforcement = enforcement_,
                                           .isDeciding = [this] { return isDeciding_; },
                                           .onEnd =
                                               [this] {
                                                 ++ends_;
                                                 workAtEnd_ = enforcement_.work().size();
                                               }}};
};

TEST_F(TakeOverTest, BeforeItBeginsEverybodyIsReady) {
  EXPECT_FALSE(takeOver_->goesOn());
  takeOver_->whenReady([this] { ++ready_; });
  EXPECT_EQ(ready_, 1);
  takeOver_->noteEvaluation();
  takeOver_->continueIfQuiet();
  EXPECT_EQ(ends_, 0);
}

TEST_F(TakeOverTest, ItEndsWhenEverythingHasBeenEvaluated) {
  begin();
  takeOver_->continueIfQuiet();
  EXPECT_TRUE(takeOver_->goesOn());
  takeOver_->noteEvaluation();
  isDeciding_ = true;
  takeOver_->continueIfQuiet();
  EXPECT_TRUE(takeOver_->goesOn());
  EXPECT_EQ(ready_, 0);
  isDeciding_ = false;
  takeOver_->continueIfQuiet();
  expectEnd();
  loop_.advanceBy(1h);
  expectEnd();
}

TEST_F(TakeOverTest, ItWaitsForTheWorkOnServices) {
  begin();
  takeOver_->noteEvaluation();
  enforcement_.enforceRunningForService(kAgent, {});
  takeOver_->continueIfQuiet();
  takeOver_->continueIfQuiet();
  EXPECT_TRUE(takeOver_->goesOn());
  loop_.runReady();
  EXPECT_TRUE(isRunning(kAgent));
  expectEnd();
}

TEST_F(TakeOverTest, WorkThatBeginsMeanwhileIsWaitedForToo) {
  begin();
  takeOver_->noteEvaluation();
  enforcement_.enforceRunningForService(kAgent, {});
  takeOver_->continueIfQuiet();
  enforcement_.enforceRunningForService(kHelper, {});
  loop_.runReady();
  EXPECT_TRUE(isRunning(kHelper));
  expectEnd();
}

TEST_F(TakeOverTest, ItsTimeIsBounded) {
  begin();
  loop_.advanceBy(TakeOver::kTakeOverTime - 1ns);
  EXPECT_TRUE(takeOver_->goesOn());
  loop_.advanceBy(1ns);
  expectEnd();
}

TEST_F(TakeOverTest, WorkMayEndAfterIt) {
  begin();
  takeOver_->noteEvaluation();
  enforcement_.enforceRunningForService(kAgent, {});
  takeOver_->continueIfQuiet();
  takeOver_.reset();
  loop_.runReady();
  EXPECT_TRUE(isRunning(kAgent));
  EXPECT_EQ(ready_, 0);
  EXPECT_EQ(ends_, 0);
}

}  // namespace
