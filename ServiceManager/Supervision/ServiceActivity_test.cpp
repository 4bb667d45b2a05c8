#include "ServiceManager/Supervision/ServiceActivity.h"

#include <map>
#include <utility>

#include <gtest/gtest.h>

namespace {

using enum ServiceActivity;
using Event = ServiceEvent;
using Step = ServiceStep;

constexpr ServiceActivity kActivities[] = {
    kNothing,       kAsksForItsJob, kConfiguresExtensions, kIsSubmitted,
    kAwaitsProcess, kIsRemoved,     kIsRemovedBeforeItRuns};
constexpr Event kEvents[] = {Event::kRun,
                             Event::kStop,
                             Event::kProgramIsDamaged,
                             Event::kJobIsKnown,
                             Event::kCannotRun,
                             Event::kExtensionsAreDone,
                             Event::kJobIsLost,
                             Event::kJobIsSent,
                             Event::kJobIsAccepted,
                             Event::kProcessIsFound,
                             Event::kProcessIsNotFound,
                             Event::kJobIsRemoved,
                             Event::kJobHostReturns};

// Every cell that does something. In all others the activity stays and the event is ignored.
const std::map<std::pair<ServiceActivity, Event>, ServiceTransition>& table() {
  static const std::map<std::pair<ServiceActivity, Event>, ServiceTransition> kTable{
      {{kNothing, Event::kRun}, {kAsksForItsJob, Step::kCheck}},
      {{kNothing, Event::kStop}, {kIsRemoved, Step::kRemove}},
      {{kNothing, Event::kProgramIsDamaged}, {kIsRemoved, Step::kRemove}},

      {{kAsksForItsJob, Event::kRun}, {kAsksForItsJob, Step::kJoin}},
      {{kAsksForItsJob, Event::kStop}, {kIsRemoved, Step::kAbandonAndRemove}},
      {{kAsksForItsJob, Event::kProgramIsDamaged}, {kIsRemoved, Step::kAbandonAndRemove}},
      {{kAsksForItsJob, Event::kCannotRun}, {kNothing, Step::kProceed}},
      {{kAsksForItsJob, Event::kJobIsKnown}, {kConfiguresExtensions, Step::kProceed}},

      {{kConfiguresExtensions, Event::kRun}, {kConfiguresExtensions, Step::kJoin}},
      {{kConfiguresExtensions, Event::kStop}, {kIsRemoved, Step::kAbandonAndRemove}},
      {{kConfiguresExtensions, Event::kProgramIsDamaged}, {kIsRemoved, Step::kAbandonAndRemove}},
      {{kConfiguresExtensions, Event::kCannotRun}, {kNothing, Step::kProceed}},
      {{kConfiguresExtensions, Event::kExtensionsAreDone}, {kConfiguresExtensions, Step::kProceed}},
      {{kConfiguresExtensions, Event::kJobIsLost}, {kAsksForItsJob, Step::kCheck}},
      {{kConfiguresExtensions, Event::kJobIsSent}, {kIsSubmitted, Step::kProceed}},
      {{kConfiguresExtensions, Event::kJobIsAccepted}, {kAwaitsProcess, Step::kProceed}},

      {{kIsSubmitted, Event::kRun}, {kIsSubmitted, Step::kJoin}},
      {{kIsSubmitted, Event::kStop}, {kIsRemoved, Step::kAbandonAndRemove}},
      {{kIsSubmitted, Event::kProgramIsDamaged}, {kIsRemoved, Step::kAbandonAndRemove}},
      {{kIsSubmitted, Event::kCannotRun}, {kNothing, Step::kProceed}},
      {{kIsSubmitted, Event::kJobIsAccepted}, {kAwaitsProcess, Step::kProceed}},

      {{kAwaitsProcess, Event::kRun}, {kAwaitsProcess, Step::kJoin}},
      {{kAwaitsProcess, Event::kStop}, {kIsRemoved, Step::kAbandonAndRemove}},
      {{kAwaitsProcess, Event::kProgramIsDamaged}, {kIsRemoved, Step::kAbandonAndRemove}},
      {{kAwaitsProcess, Event::kProcessIsFound}, {kNothing, Step::kProceed}},
      {{kAwaitsProcess, Event::kProcessIsNotFound}, {kNothing, Step::kProceed}},
      {{kAwaitsProcess, Event::kJobIsLost}, {kAsksForItsJob, Step::kCheck}},
      {{kAwaitsProcess, Event::kJobHostReturns}, {kAwaitsProcess, Step::kLookForProcess}},

      {{kIsRemoved, Event::kRun}, {kIsRemovedBeforeItRuns, Step::kJoin}},
      {{kIsRemoved, Event::kStop}, {kIsRemoved, Step::kJoin}},
      {{kIsRemoved, Event::kJobIsRemoved}, {kNothing, Step::kProceed}},

      {{kIsRemovedBeforeItRuns, Event::kRun}, {kIsRemovedBeforeItRuns, Step::kJoin}},
      {{kIsRemovedBeforeItRuns, Event::kStop}, {kIsRemoved, Step::kJoin}},
      {{kIsRemovedBeforeItRuns, Event::kJobIsRemoved}, {kAsksForItsJob, Step::kEndAndCheck}},
  };
  return kTable;
}

TEST(ServiceActivityTest, EachEventInEachStateHasItsTransition) {
  for (const ServiceActivity activity : kActivities) {
    for (const Event event : kEvents) {
      const auto cell = table().find({activity, event});
      const ServiceTransition expected =
          cell == table().end() ? ServiceTransition{activity, Step::kIgnore} : cell->second;
      const ServiceTransition transition = nextServiceActivity(activity, event);
      EXPECT_EQ(transition.next, expected.next)
          << static_cast<int>(activity) << " " << static_cast<int>(event);
      EXPECT_EQ(transition.step, expected.step)
          << static_cast<int>(activity) << " " << static_cast<int>(event);
    }
  }
}

// The last request decides what becomes of a service, whatever goes on with it.
TEST(ServiceActivityTest, TheLastRequestCounts) {
  for (const ServiceActivity activity : kActivities) {
    const ServiceActivity stopped = nextServiceActivity(activity, Event::kStop).next;
    EXPECT_EQ(stopped, kIsRemoved);
    const ServiceActivity runs = nextServiceActivity(stopped, Event::kRun).next;
    EXPECT_EQ(nextServiceActivity(runs, Event::kJobIsRemoved).step, Step::kEndAndCheck);
    const ServiceActivity stoppedAgain = nextServiceActivity(runs, Event::kStop).next;
    EXPECT_EQ(nextServiceActivity(stoppedAgain, Event::kJobIsRemoved).next, kNothing);
  }
}

}  // namespace
