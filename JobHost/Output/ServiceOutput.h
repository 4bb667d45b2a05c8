#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "JobHost/Output/OutputReader.h"
#include "JobHost/Processes/JobOutput.h"
#include "Platform/Linux/Logging/BufferedLogSink.h"
#include "Platform/Logging/SystemLog.h"
#include "Platform/RunLoops/RunLoop.h"
#include "Platform/SystemFacts/PlatformConfiguration.h"
#include "Platform/Values/Time.h"

namespace jobhost {

// Where the jobs print whose dictionaries name no files: "ServiceOutput" of the configuration. The
// output that this host reads itself is only that of jobs which run as the host's user.
class ServiceOutput {
 public:
  // `pipes` is the folder of the pipes. `log` outlives this.
  static platform::Result<std::unique_ptr<ServiceOutput>> create(
      const platform::PlatformConfiguration& configuration, std::string pipes,
      platform::SystemLog& log);
  ServiceOutput(const ServiceOutput&) = delete;
  ServiceOutput& operator=(const ServiceOutput&) = delete;

  // It refers to this object.
  JobOutput output();

  // Between two tries to read pipes of an earlier host.
  static constexpr platform::Duration kRetryInterval = std::chrono::seconds(10);

  // Goes on with the pipes that processes of an earlier host print to, whatever the configuration
  // says now: they would wait as soon as their pipes are full. Only for the host that has the jobs.
  // Tries again until it succeeds. `loop` outlives this.
  void takeOver(platform::RunLoop& loop);

  // Before the host is replaced: writes what has been read, within `limit`.
  void stop(platform::Duration limit);
  // If it was not replaced. Comes after takeOver().
  void start();

 private:
  ServiceOutput(platform::PlatformConfiguration::ServiceOutput kind, const std::string& root,
                platform::SystemLog& log);

  platform::UniqueFd openFor(const JobDefinition& job, const JobAccount& account);
  void tryToTakeOver();
  void noteThatNothingIsRead(const platform::Error& error);
  void noteFailure(const std::string& label, const platform::Error& error);

  const platform::PlatformConfiguration::ServiceOutput kind_;
  platform::SystemLog& log_;
  platform::BufferedLogSink files_;
  std::unique_ptr<OutputReader> reader_;
  bool hasFailed_ = false;
  platform::RunLoop* loop_ = nullptr;
  bool hasFailedToRead_ = false;
  std::unique_ptr<platform::RunLoopHandle> retry_;
};

}  // namespace jobhost
