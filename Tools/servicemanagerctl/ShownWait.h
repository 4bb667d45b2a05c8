#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Tools/servicemanagerctl/BlockedCallProgress.h"
#include "Tools/servicemanagerctl/DaemonClient.h"
#include "Tools/servicemanagerctl/LogPrinter.h"
#include "Tools/servicemanagerctl/WaitProgress.h"

// Shows on standard error a wait for services while it lives: their log, if the user has asked for
// that, else a line that changes.
class ShownWait {
 public:
  ShownWait(WaitProgress::Wait wait, bool showsLog, const DaemonClient::Environment& environment,
            const std::vector<std::string>& labels);

 private:
  std::optional<BlockedCallProgress> progress_;
  std::optional<LogPrinter> log_;
};
