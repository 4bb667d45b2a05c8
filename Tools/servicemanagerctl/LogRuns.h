#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "Platform/Values/Time.h"
#include "Tools/servicemanagerctl/DaemonClient.h"

// When the present run of these services began, or the last run of one that does not run; the
// earliest of them. Fails if none has run.
Answer<platform::WallTime> beginOfRuns(const DaemonClient::Environment& environment,
                                       const std::vector<std::string>& labels);

// The processes of these services at present, as far as the service manager tells them.
std::set<std::int64_t> processesOf(const DaemonClient::Environment& environment,
                                   const std::vector<std::string>& labels);

// Fails if the service manager answers, and knows no service with one of the labels.
Answer<void> checkLabels(const DaemonClient::Environment& environment,
                         const std::vector<std::string>& labels);
