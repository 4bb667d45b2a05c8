#pragma once

// The states through which a kernel extension is loaded and configured. What is done in a state is
// its caller's; which state comes then is decided here.
enum class KextLoadingState {
  kConnect,    // a control socket, which of the network extension must say that it is recent enough
  kConfigure,  // its options
  kLoad,       // since it could not be connected to
  kUnload,     // since it is of no use as it is
  kReload,     // since it has been unloaded
  kFailed,     // an end
  kDone,       // an end
};

// How what was done in a state went.
enum class KextLoadingOutcome {
  kSucceeded,
  kFailed,    // in kUnload: not within its deadline
  kRejected,  // in kConnect and kConfigure: it answers, and is of no use as it is
  kNotYet,    // in kUnload: to be tried again
};

// What can't happen in a state leads to kFailed; the ends lead nowhere. kConnect and kLoad follow
// each other for as long as loading succeeds and connecting does not: deliberately, nothing counts
// how often.
KextLoadingState nextKextLoadingState(KextLoadingState state, KextLoadingOutcome outcome);
