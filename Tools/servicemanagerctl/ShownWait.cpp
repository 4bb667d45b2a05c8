#include "Tools/servicemanagerctl/ShownWait.h"

#include <utility>

ShownWait::ShownWait(WaitProgress::Wait wait, bool showsLog,
                     const DaemonClient::Environment& environment,
                     const std::vector<std::string>& labels) {
  if (showsLog) {
    log_.emplace(LabelLog(*environment.configuration, {.labels = labels}));
  } else {
    progress_.emplace(std::move(wait));
  }
}
