#pragma once

// The states through which a kernel extension is loaded and configured. The caller acts in each
// state; nextKextLoadingState() decides which state comes next.
enum class KextLoadingState {
  kConnect,    // open a control socket; the network extension must be recent enough
  kConfigure,  // set its options
  kLoad,       // because connecting failed
  kUnload,     // because it can't be used as it is
  kReload,     // because it has been unloaded
  kFailed,     // final
  kDone,       // final
};

// The result of the action in a state.
enum class KextLoadingOutcome {
  kSucceeded,
  kFailed,    // in kUnload: not within its deadline
  kRejected,  // in kConnect and kConfigure: it answers, but can't be used as it is
  kNotYet,    // in kUnload: try again; in kLoad: its signature can't be checked now
};

// An outcome that can't happen in a state leads to kFailed; a final state stays as it is. kConnect
// and kLoad alternate for as long as loading succeeds and connecting fails: deliberately, nothing
// counts how often.
KextLoadingState nextKextLoadingState(KextLoadingState state, KextLoadingOutcome outcome);
