#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "Platform/BackgroundServices/ServiceReadiness.h"
#include "Platform/BackgroundServices/TerminationSignals.h"
#include "Platform/RunLoops/RunLoop.h"
#include "Platform/Values/NameTable.h"
#include "Platform/Values/Value.h"

namespace platform {

// The calls from a host to a background service's class, on the main thread, each once and in this
// order.
//
// The arguments are not used; they belong to the methods' selectors and are nil.
class VGBackgroundServiceDelegate {
 public:
  virtual ~VGBackgroundServiceDelegate() = default;

  virtual void backgroundServiceDidFinishLaunching(const Value& notification) = 0;
  // Calls `ready`, once, when the service is ready: at once, or later on the loop. Optional: a
  // class without this method is ready after its launch.
  virtual void backgroundServiceWhenReady(std::move_only_function<void()> ready) { ready(); }
  virtual void backgroundServiceWillTerminate(const Value& notification) = 0;
};

// The classes of which a host can make an instance, by the name of the class.
using BackgroundServiceClasses =
    NameTable<std::function<std::unique_ptr<VGBackgroundServiceDelegate>()>>;

// The objects that a host uses; all of them outlive the host's call.
struct BackgroundServiceHost {
  RunLoop& runLoop;
  TerminationSignals& terminationSignals;
  ServiceReadiness& readiness;
  const BackgroundServiceClasses& classes;
  // Gets the errors that are printed to standard error, which nobody may read. Optional.
  std::function<void(const std::string& error)> report = {};

  // Made by the host and left here, so that a further termination request during the program's
  // clean-up does not kill it. Ends with this struct, which `runLoop` must outlive.
  std::unique_ptr<RunLoopHandle> terminationWatch = nullptr;
};

// Runs a class as a background service: makes one instance, calls
// backgroundServiceDidFinishLaunching(), announces readiness once the instance is ready, runs the
// main run loop until a termination request, announces that, calls
// backgroundServiceWillTerminate(), destroys the instance and returns the program's exit status, 0.
// An earlier request counts as soon as the loop runs; further ones change nothing.
//
// If there is no such class, no instance of it, or termination requests can't be watched, it prints
// and reports the reason and returns another status without any of these calls.
//
// The arguments are ignored, because a background service has no options; they belong to the
// routine's signature.
int VGBackgroundServiceMain(std::string_view className, int argumentCount,
                            const char* const* argumentVector, BackgroundServiceHost& host);

}  // namespace platform
