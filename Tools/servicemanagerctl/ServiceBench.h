#pragma once

#include <functional>
#include <string>

#include "Platform/RunLoops/RunLoop.h"
#include "Platform/Values/Dictionary.h"
#include "Platform/Values/Error.h"

// One job in a job host of its own, which has a temporary platform root.
struct ServiceBench {
  std::string hostProgram;
  platform::Dictionary job;  // without the files of its output
  std::string label;
  platform::Duration throttle;
  std::function<platform::Instant()> now;
};

// Runs the job until SIGINT or SIGTERM, and then ends it as the job host does. Shows on standard
// output what the job prints and, in lines that begin with "== ", what the job host does. The end
// of this program, too, ends the host and the job. Fails with kInvalid if the host rejects the job.
platform::Result<void> runOnBench(const ServiceBench& bench);
