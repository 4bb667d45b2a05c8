#pragma once

#include <string>
#include <vector>

#include "Platform/SystemFacts/SystemInformation.h"
#include "Platform/Values/Time.h"
#include "Platform/Values/Value.h"
#include "Tools/servicemanagerctl/DaemonClient.h"
#include "Tools/servicemanagerctl/ServicesReport.h"

// Asks the operator's server about services at a glance.

struct ServicesAnswer {
  platform::Value overview;            // the facts of the service manager itself, too
  std::vector<ServiceState> services;  // sorted by label
};

// The use of memory and processor, for which the operator's server asks the job host.
enum class Trees { kNone, kAsked };

// About the services that the patterns select (selectLabels()), all of them without any. `daemon`
// is connected to the operator's server.
Answer<ServicesAnswer> askForServices(DaemonClient& daemon,
                                      const std::vector<std::string>& patterns,
                                      const platform::SystemInformation& system,
                                      platform::WallTime now, Trees trees);

// Facts of the whole product that a reader of the table must know, a line for each; empty if all is
// as usual.
std::string bannerOf(const platform::Value& overview);
