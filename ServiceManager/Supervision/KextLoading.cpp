#include "ServiceManager/Supervision/KextLoading.h"

KextLoadingState nextKextLoadingState(KextLoadingState state, KextLoadingOutcome outcome) {
  using enum KextLoadingState;
  const bool succeeded = outcome == KextLoadingOutcome::kSucceeded;
  const bool rejected = outcome == KextLoadingOutcome::kRejected;
  switch (state) {
    case kConnect:
      if (succeeded) return kConfigure;
      if (rejected) return kUnload;
      return outcome == KextLoadingOutcome::kFailed ? kLoad : kFailed;
    case kConfigure:
      if (succeeded) return kDone;
      return rejected ? kUnload : kFailed;
    case kLoad:
      if (succeeded) return kConnect;
      return outcome == KextLoadingOutcome::kFailed ? kUnload : kFailed;
    case kUnload:
      if (succeeded) return kReload;
      return outcome == KextLoadingOutcome::kNotYet ? kUnload : kFailed;
    case kReload:
      return succeeded ? kConnect : kFailed;
    case kFailed:
    case kDone:
      return state;
  }
  return kFailed;
}
