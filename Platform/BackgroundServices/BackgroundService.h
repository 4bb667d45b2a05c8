#pragma once

#include <functional>
#include <memory>
#include <string_view>

#include "Platform/BackgroundServices/ServiceReadiness.h"
#include "Platform/BackgroundServices/TerminationSignals.h"
#include "Platform/RunLoops/RunLoop.h"
#include "Platform/Values/NameTable.h"
#include "Platform/Values/Value.h"

namespace platform {

// What a background service's class is told by its host; on the main thread, each once.
//
// The arguments are not used; they belong to the methods' selectors and are nil.
class VGBackgroundServiceDelegate {
 public:
  virtual ~VGBackgroundServiceDelegate() = default;

  virtual void backgroundServiceDidFinishLaunching(const Value& notification) = 0;
  virtual void backgroundServiceWillTerminate(const Value& notification) = 0;
};

// The classes that a host can make an instance of. The name is the class's own.
using BackgroundServiceClasses =
    NameTable<std::function<std::unique_ptr<VGBackgroundServiceDelegate>()>>;

// What a host needs from outside; all of it outlives the host's call.
struct BackgroundServiceHost {
  RunLoop& runLoop;
  TerminationSignals& terminationSignals;
  ServiceReadiness& readiness;
  const BackgroundServiceClasses& classes;

  // Made by the host and left here, so that a further request to end, while the program cleans up
  // behind the host, does not kill it. Ends with this struct, which `runLoop` must outlive.
  std::unique_ptr<RunLoopHandle> terminationWatch = nullptr;
};

// Runs a class as a background service: makes one instance, calls
// backgroundServiceDidFinishLaunching(), announces readiness, runs the main run loop until the
// program is asked to end, announces that, calls backgroundServiceWillTerminate(), destroys the
// instance and returns the program's exit status, 0. A request that comes earlier counts as soon as
// the loop runs; further ones change nothing.
//
// Says on standard error what is wrong and returns another status, without having called anything,
// when there is no such class or no instance of it, or when requests to end can't be watched.
//
// The arguments are not looked at, since a background service has no options; they belong to the
// routine.
int VGBackgroundServiceMain(std::string_view className, int argumentCount,
                            const char* const* argumentVector, BackgroundServiceHost& host);

}  // namespace platform
