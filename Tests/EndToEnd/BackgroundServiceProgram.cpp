// A background service for the tests: prints the calls of its host on standard output. Its argument
// is the class to run.

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include <unistd.h>

#include "Platform/BackgroundServices/BackgroundService.h"
#include "Platform/Linux/BackgroundServices/AsioTerminationSignals.h"
#include "Platform/Linux/BackgroundServices/ServiceNotify.h"
#include "Platform/Linux/RunLoops/AsioRunLoop.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/Linux/SystemFacts/ExecutablePath.h"
#include "Platform/Linux/SystemFacts/PlatformRoot.h"

namespace {

using namespace platform;

void say(const std::string& line) {
  std::puts(line.c_str());
  std::fflush(stdout);
}

void readInputToItsEnd() {
  char byte = 0;
  // The signals that these tests send interrupt it.
  while (retryOnInterrupt([&] { return ::read(0, &byte, 1); }) > 0) {
  }
}

class Service : public VGBackgroundServiceDelegate {
 public:
  Service() { say(std::getenv("NOTIFY_SOCKET") ? "made, with NOTIFY_SOCKET" : "made"); }
  void backgroundServiceDidFinishLaunching(const Value&) override { say("launched"); }
  void backgroundServiceWillTerminate(const Value&) override { say("terminated"); }
};

class SlowToLaunch final : public Service {
 public:
  void backgroundServiceDidFinishLaunching(const Value&) override {
    say("launching");
    readInputToItsEnd();
    say("launched");
  }
};

class SlowToTerminate final : public Service {
 public:
  void backgroundServiceWillTerminate(const Value&) override {
    say("terminating");
    readInputToItsEnd();
    say("terminated");
  }
};

class Surveyor final : public Service {
 public:
  void backgroundServiceDidFinishLaunching(const Value&) override {
    const auto program = runningExecutablePath();
    if (!program) return say(describe(program.error()));
    const auto root = platformRootOfExecutable(*program);
    if (!root) return say(describe(root.error()));
    const auto configuration = readPlatformConfiguration(*root);
    if (!configuration) return say(describe(configuration.error()));
    const auto bundle = bundleOfExecutable(*program);
    if (!bundle) return say(describe(bundle.error()));
    say("root " + configuration->root + " " + configuration->kernelRelease);
    say("bundle " + bundle->path());
  }
};

template <typename Class>
std::unique_ptr<VGBackgroundServiceDelegate> make() {
  return std::make_unique<Class>();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fputs("usage: background_service_program CLASS\n", stderr);
    return EXIT_FAILURE;
  }
  ServiceNotify readiness = ServiceNotify::takeFromEnvironment();
  const auto loop = AsioRunLoop::create();
  if (!loop) {
    std::fputs((describe(loop.error()) + "\n").c_str(), stderr);
    return EXIT_FAILURE;
  }
  AsioTerminationSignals signals(**loop);

  BackgroundServiceClasses classes;
  classes.add("Service", make<Service>);
  classes.add("SlowToLaunch", make<SlowToLaunch>);
  classes.add("SlowToTerminate", make<SlowToTerminate>);
  classes.add("Surveyor", make<Surveyor>);
  classes.add("SignalledBeforeItIsMade", [] {
    std::raise(SIGTERM);
    return make<Service>();
  });
  BackgroundServiceHost host{**loop, signals, readiness, classes};
  const int status = VGBackgroundServiceMain(argv[1], argc, argv, host);
  if (status == 0) std::raise(SIGTERM);  // A second signal during the cleanup.
  return status;
}
