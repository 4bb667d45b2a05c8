#include "ServiceManager/Supervision/KextLoading.h"

#include <set>
#include <tuple>

#include <gtest/gtest.h>

namespace {

using State = KextLoadingState;
using Outcome = KextLoadingOutcome;

// Every transition, by its name.
#define ARROW(name, from, outcome, to)                                         \
  TEST(KextLoadingTest, name) {                                                \
    EXPECT_EQ(nextKextLoadingState(State::from, Outcome::outcome), State::to); \
  }

ARROW(AConnectedExtensionIsConfigured, kConnect, kSucceeded, kConfigure)
ARROW(OneThatCannotBeConnectedToIsLoaded, kConnect, kFailed, kLoad)
ARROW(OneThatIsTooOldIsUnloaded, kConnect, kRejected, kUnload)
ARROW(AConfiguredExtensionIsDone, kConfigure, kSucceeded, kDone)
ARROW(OneThatDoesNotTakeItsOptionsIsUnloaded, kConfigure, kRejected, kUnload)
ARROW(ALoadedExtensionIsConnectedTo, kLoad, kSucceeded, kConnect)
ARROW(OneThatCannotBeLoadedIsUnloaded, kLoad, kFailed, kUnload)
ARROW(OneThatCannotBeCheckedIsNotUnloaded, kLoad, kNotYet, kFailed)
ARROW(AnUnloadedExtensionIsReloaded, kUnload, kSucceeded, kReload)
ARROW(OneThatIsNotUnloadedYetIsUnloadedAgain, kUnload, kNotYet, kUnload)
ARROW(OneThatIsNotUnloadedInTimeHasFailed, kUnload, kFailed, kFailed)
ARROW(AReloadedExtensionIsConnectedTo, kReload, kSucceeded, kConnect)
ARROW(OneThatCannotBeReloadedHasFailed, kReload, kFailed, kFailed)

#undef ARROW

TEST(KextLoadingTest, FinalStatesStayAsTheyAre) {
  for (const Outcome outcome :
       {Outcome::kSucceeded, Outcome::kFailed, Outcome::kRejected, Outcome::kNotYet}) {
    EXPECT_EQ(nextKextLoadingState(State::kFailed, outcome), State::kFailed);
    EXPECT_EQ(nextKextLoadingState(State::kDone, outcome), State::kDone);
  }
}

TEST(KextLoadingTest, AnImpossibleOutcomeIsAFailure) {
  for (const auto& [state, outcome] : {std::pair{State::kConnect, Outcome::kNotYet},
                                       {State::kConfigure, Outcome::kFailed},
                                       {State::kConfigure, Outcome::kNotYet},
                                       {State::kLoad, Outcome::kRejected},
                                       {State::kUnload, Outcome::kRejected},
                                       {State::kReload, Outcome::kRejected},
                                       {State::kReload, Outcome::kNotYet}}) {
    EXPECT_EQ(nextKextLoadingState(state, outcome), State::kFailed);
  }
}

}  // namespace
