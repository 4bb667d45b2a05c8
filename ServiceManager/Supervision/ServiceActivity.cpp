#include "ServiceManager/Supervision/ServiceActivity.h"

namespace {

using enum ServiceActivity;
using Event = ServiceEvent;
using Step = ServiceStep;

ServiceTransition whileNothing(Event event) {
  switch (event) {
    case Event::kRun:
      return {kAsksForItsJob, Step::kCheck};
    case Event::kStop:
    case Event::kProgramIsDamaged:
      return {kIsRemoved, Step::kRemove};
    default:
      return {kNothing, Step::kIgnore};
  }
}

ServiceTransition whileAsking(Event event) {
  switch (event) {
    case Event::kRun:
      return {kAsksForItsJob, Step::kJoin};
    case Event::kStop:
    case Event::kProgramIsDamaged:
      return {kIsRemoved, Step::kAbandonAndRemove};
    case Event::kCannotRun:
      return {kNothing, Step::kProceed};
    case Event::kJobIsKnown:
      return {kConfiguresExtensions, Step::kProceed};
    default:
      return {kAsksForItsJob, Step::kIgnore};
  }
}

ServiceTransition whileConfiguring(Event event) {
  switch (event) {
    case Event::kRun:
      return {kConfiguresExtensions, Step::kJoin};
    case Event::kStop:
    case Event::kProgramIsDamaged:
      return {kIsRemoved, Step::kAbandonAndRemove};
    case Event::kCannotRun:
      return {kNothing, Step::kProceed};
    case Event::kExtensionsAreDone:
      return {kConfiguresExtensions, Step::kProceed};
    case Event::kJobIsLost:
      return {kAsksForItsJob, Step::kCheck};
    case Event::kJobIsSent:
      return {kIsSubmitted, Step::kProceed};
    case Event::kJobIsAccepted:
      return {kAwaitsProcess, Step::kProceed};
    default:
      return {kConfiguresExtensions, Step::kIgnore};
  }
}

ServiceTransition whileSubmitted(Event event) {
  switch (event) {
    case Event::kRun:
      return {kIsSubmitted, Step::kJoin};
    case Event::kStop:
    case Event::kProgramIsDamaged:
      return {kIsRemoved, Step::kAbandonAndRemove};
    case Event::kCannotRun:
      return {kNothing, Step::kProceed};
    case Event::kJobIsAccepted:
      return {kAwaitsProcess, Step::kProceed};
    default:
      return {kIsSubmitted, Step::kIgnore};
  }
}

ServiceTransition whileAwaiting(Event event) {
  switch (event) {
    case Event::kRun:
      return {kAwaitsProcess, Step::kJoin};
    case Event::kStop:
    case Event::kProgramIsDamaged:
      return {kIsRemoved, Step::kAbandonAndRemove};
    case Event::kProcessIsFound:
    case Event::kProcessIsNotFound:
      return {kNothing, Step::kProceed};
    case Event::kJobIsLost:
      return {kAsksForItsJob, Step::kCheck};
    case Event::kJobHostReturns:
      return {kAwaitsProcess, Step::kLookForProcess};
    default:
      return {kAwaitsProcess, Step::kIgnore};
  }
}

// The last request counts: a service that is stopped and then started runs in the end.
ServiceTransition whileRemoving(ServiceActivity activity, Event event) {
  switch (event) {
    case Event::kRun:
      return {kIsRemovedBeforeItRuns, Step::kJoin};
    case Event::kStop:
      return {kIsRemoved, Step::kJoin};
    case Event::kJobIsRemoved:
      if (activity == kIsRemoved) return {kNothing, Step::kProceed};
      return {kAsksForItsJob, Step::kEndAndCheck};
    default:
      return {activity, Step::kIgnore};
  }
}

}  // namespace

ServiceTransition nextServiceActivity(ServiceActivity activity, ServiceEvent event) {
  switch (activity) {
    case kNothing:
      return whileNothing(event);
    case kAsksForItsJob:
      return whileAsking(event);
    case kConfiguresExtensions:
      return whileConfiguring(event);
    case kIsSubmitted:
      return whileSubmitted(event);
    case kAwaitsProcess:
      return whileAwaiting(event);
    case kIsRemoved:
    case kIsRemovedBeforeItRuns:
      return whileRemoving(activity, event);
  }
  return {activity, Step::kIgnore};
}
