#include "Platform/BackgroundServices/BackgroundService.h"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace platform {
namespace {

// The host runs before any log exists, so it can only use standard error.
void printError(const std::string& text) {
  std::fputs(("VGBackgroundServiceMain: " + text + "\n").c_str(), stderr);
}

// The service manager may miss an announcement, but our work does not depend on it.
void printFailure(const Result<void>& announcement) {
  if (!announcement) printError(describe(announcement.error()) + "; going on without");
}

}  // namespace

int VGBackgroundServiceMain(std::string_view className, int /*argumentCount*/,
                            const char* const* /*argumentVector*/, BackgroundServiceHost& host) {
  const std::string name(className);
  const auto* const makeInstance = host.classes.find(className);
  if (!makeInstance) {
    printError("there is no class \"" + name +
               "\"; add it to the table of classes that main() fills");
    return EXIT_FAILURE;
  }

  auto watch = host.terminationSignals.watchTermination([&loop = host.runLoop] { loop.stop(); });
  if (!watch) {
    printError(describe(watch.error()) + "; free what it needs and start the program again");
    return EXIT_FAILURE;
  }
  host.terminationWatch = *std::move(watch);

  const auto instance = (*makeInstance)();
  if (!instance) {
    printError("no instance of class \"" + name + "\" could be made");
    return EXIT_FAILURE;
  }
  instance->backgroundServiceDidFinishLaunching(Value());
  instance->backgroundServiceWhenReady(
      [&readiness = host.readiness] { printFailure(readiness.announceReady()); });
  host.runLoop.run();
  printFailure(host.readiness.announceStopping());
  instance->backgroundServiceWillTerminate(Value());
  return EXIT_SUCCESS;
}

}  // namespace platform
