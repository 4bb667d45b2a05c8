#include "Platform/Linux/LinuxPlatform.h"

#include <utility>

#include "Platform/Linux/Logging/LogSinkChoice.h"
#include "Platform/Linux/Logging/StandardErrorLogSink.h"
#include "Platform/Linux/SystemCalls/DescriptorLimit.h"
#include "Platform/Linux/SystemFacts/ExecutablePath.h"
#include "Platform/Linux/SystemFacts/PlatformRoot.h"
#include "Platform/Linux/SystemFacts/PreferredLanguages.h"
#include "Platform/Texts/IntegerValue.h"

namespace platform {
namespace {

// File handles call their readability handlers from release 10.7 of the platform on, whose kernel
// is 11.
constexpr std::int64_t kFirstKernelWithReadabilityHandlers = 11;

bool hasReadabilityHandlers(const PlatformConfiguration& configuration) {
  return integerValue(configuration.kernelRelease) >= kFirstKernelWithReadabilityHandlers;
}

std::string programName(const std::string& executable) {
  return executable.substr(executable.rfind('/') + 1);
}

}  // namespace

LinuxPlatform::LinuxPlatform(ServiceNotify readiness_, std::optional<PassedSocket> passedSocket_,
                             std::uint64_t originalDescriptorLimit_,
                             PlatformConfiguration configuration_, Bundle mainBundle_,
                             std::unique_ptr<LogSink> logSink_,
                             std::unique_ptr<AsioRunLoop> runLoop_)
    : readiness(std::move(readiness_)),
      passedSocket(std::move(passedSocket_)),
      originalDescriptorLimit(originalDescriptorLimit_),
      configuration(std::move(configuration_)),
      mainBundle(std::move(mainBundle_)),
      systemInformation(configuration, "/proc"),
      preferredLanguages(platform::preferredLanguages(configuration)),
      fileManager(configuration.usersRoot),
      logSink(std::move(logSink_)),
      standardError(std::make_unique<StandardErrorLogSink>()),
      systemLog(logSink, programName(mainBundle.executablePath()), configuration.logLevel),
      runLoop(std::move(runLoop_)),
      tasks(*runLoop, notificationCenter,
            {.callsReadabilityHandlers = hasReadabilityHandlers(configuration),
             .descriptorLimit = originalDescriptorLimit}) {}

Result<std::unique_ptr<LinuxPlatform>> LinuxPlatform::make() {
  return makeWith(platformRootOfExecutable);
}

Result<std::unique_ptr<LinuxPlatform>> LinuxPlatform::makeAt(const std::string& root) {
  return makeWith([&](const std::string&) { return platformRootAt(root); });
}

Result<std::unique_ptr<LinuxPlatform>> LinuxPlatform::makeWith(
    const std::function<Result<std::string>(const std::string& executable)>& findRoot) {
  ServiceNotify readiness = ServiceNotify::takeFromEnvironment();
  auto passedSocket = PassedSocket::takeFromEnvironment();
  if (!passedSocket) return std::unexpected(std::move(passedSocket.error()));
  auto descriptorLimit = raiseDescriptorLimit();
  if (!descriptorLimit) return std::unexpected(std::move(descriptorLimit.error()));
  const auto executable = runningExecutablePath();
  if (!executable) return std::unexpected(executable.error());
  const auto root = findRoot(*executable);
  if (!root) return std::unexpected(root.error());
  auto configuration = readPlatformConfiguration(*root);
  if (!configuration) return std::unexpected(std::move(configuration.error()));
  auto mainBundle = bundleOfExecutable(*executable);
  if (!mainBundle) return std::unexpected(std::move(mainBundle.error()));
  if (!configuration->logSink) configuration->logSink = chooseLogSink(*root);
  auto logSink = makeLogSink(*root, *configuration->logSink);
  if (!logSink) return std::unexpected(std::move(logSink.error()));
  auto runLoop = AsioRunLoop::create();
  if (!runLoop) return std::unexpected(std::move(runLoop.error()));
  return std::unique_ptr<LinuxPlatform>(new LinuxPlatform(
      std::move(readiness), *std::move(passedSocket), *descriptorLimit, *std::move(configuration),
      *std::move(mainBundle), *std::move(logSink), *std::move(runLoop)));
}

void logFailedStart(const Error& error) {
  const auto executable = runningExecutablePath();
  if (!executable) return;
  const auto root = platformRootOfExecutable(*executable);
  if (!root) return;
  auto sink = makeLogSink(*root, chooseLogSink(*root));
  if (!sink) return;
  BufferedLogSink buffered(*std::move(sink));
  SystemLog log(buffered, programName(*executable));
  log.asl_log(nullptr, ASL_LEVEL_ERR, "the program does not start: " + describe(error));
}

}  // namespace platform
