#include "Platform/BackgroundServices/BackgroundService.h"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace platform {
namespace {

void reportError(const BackgroundServiceHost& host, const std::string& text) {
  const std::string line = "VGBackgroundServiceMain: " + text;
  std::fputs((line + "\n").c_str(), stderr);
  if (host.report) host.report(line);
}

// The service manager may miss an announcement, but our work does not depend on it.
void reportFailure(const BackgroundServiceHost& host, const Result<void>& announcement) {
  if (!announcement) reportError(host, describe(announcement.error()) + "; going on without");
}

}  // namespace

int VGBackgroundServiceMain(std::string_view className, int /*argumentCount*/,
                            const char* const* /*argumentVector*/, BackgroundServiceHost& host) {
  const std::string name(className);
  const auto* const makeInstance = host.classes.find(className);
  if (!makeInstance) {
    reportError(host, "there is no class \"" + name +
                          "\"; add it to the table of classes that main() fills");
    return EXIT_FAILURE;
  }

  auto watch = host.terminationSignals.watchTermination([&loop = host.runLoop] { loop.stop(); });
  if (!watch) {
    reportError(host, describe(watch.error()) + "; free what it needs and start the program again");
    return EXIT_FAILURE;
  }
  host.terminationWatch = *std::move(watch);

  const auto instance = (*makeInstance)();
  if (!instance) {
    reportError(host, "no instance of class \"" + name + "\" could be made");
    return EXIT_FAILURE;
  }
  instance->backgroundServiceDidFinishLaunching(Value());
  instance->backgroundServiceWhenReady(
      [&host] { reportFailure(host, host.readiness.announceReady()); });
  host.runLoop.run();
  reportFailure(host, host.readiness.announceStopping());
  instance->backgroundServiceWillTerminate(Value());
  return EXIT_SUCCESS;
}

}  // namespace platform
