#pragma once

// The state of the work on one service, and the meaning of each event for it. Pure; any thread.

// The daemon never waits for a service: a service that must wait is in one of these states, and the
// run loop serves others meanwhile.
enum class ServiceActivity {
  kNothing,
  kAsksForItsJob,          // the job host, before anything is decided
  kConfiguresExtensions,   // before it is started, or before the running one is watched
  kIsSubmitted,            // the job host has not answered yet
  kAwaitsProcess,          // its job is with the job host, and its process is not known yet
  kIsRemoved,              // the job host ends its processes
  kIsRemovedBeforeItRuns,  // the same, and it has been asked to run meanwhile
};

enum class ServiceEvent {
  kRun,                // an evaluation or a user interface wants it to run
  kStop,               // an evaluation, a user interface or the installer wants it to stop
  kProgramIsDamaged,   // its job must go
  kJobIsKnown,         // the job host has told of its job, or does not answer
  kCannotRun,          // a check or its start has failed
  kExtensionsAreDone,  // it may be started, or watched if it runs
  kJobIsLost,          // it needs a new one, or may need one
  kJobIsSent,          // to the job host
  kJobIsAccepted,      // or it runs already
  kProcessIsFound,     // and watched
  kProcessIsNotFound,  // after the last look for it
  kJobIsRemoved,       // or its removal has failed
  kJobHostReturns,
};

// The reaction that the owner of the state owes to an event.
enum class ServiceStep {
  kIgnore,
  kProceed,           // with what has led to the event
  kCheck,             // its job, release, program and extensions
  kJoin,              // the caller gets the result of what goes on
  kRemove,            // the job
  kAbandonAndRemove,  // the same; what went on has no result
  kLookForProcess,    // now, instead of at the next look
  kEndAndCheck,       // the same, and the service is made to run
};

struct ServiceTransition {
  ServiceActivity next;
  ServiceStep step;
};

ServiceTransition nextServiceActivity(ServiceActivity activity, ServiceEvent event);
