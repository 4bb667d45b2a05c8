#include "Platform/BackgroundServices/BackgroundService.h"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace platform {
namespace {

// The host comes before every log, so standard error is all it has.
void complain(const std::string& text) {
  std::fputs(("VGBackgroundServiceMain: " + text + "\n").c_str(), stderr);
}

// Whoever started us may miss an announcement, but our work does not depend on it.
void complainOf(const Result<void>& announcement) {
  if (!announcement) complain(describe(announcement.error()) + "; going on without");
}

}  // namespace

int VGBackgroundServiceMain(std::string_view className, int /*argumentCount*/,
                            const char* const* /*argumentVector*/, BackgroundServiceHost& host) {
  const std::string name(className);
  const auto* const makeInstance = host.classes.find(className);
  if (!makeInstance) {
    complain("there is no class \"" + name +
             "\"; add it to the table of classes that main() fills");
    return EXIT_FAILURE;
  }

  auto watch = host.terminationSignals.watchTermination([&loop = host.runLoop] { loop.stop(); });
  if (!watch) {
    complain(describe(watch.error()) + "; free what it needs and start the program again");
    return EXIT_FAILURE;
  }
  host.terminationWatch = *std::move(watch);

  const auto instance = (*makeInstance)();
  if (!instance) {
    complain("no instance of class \"" + name + "\" could be made");
    return EXIT_FAILURE;
  }
  instance->backgroundServiceDidFinishLaunching(Value());
  complainOf(host.readiness.announceReady());
  host.runLoop.run();
  complainOf(host.readiness.announceStopping());
  instance->backgroundServiceWillTerminate(Value());
  return EXIT_SUCCESS;
}

}  // namespace platform
