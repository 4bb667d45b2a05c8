#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Values/Value.h"
#include "Tools/servicemanagerctl/DaemonClient.h"

// Questions to the operator's server about all services. Their answers do not fit into one message
// if there are thousands of services, so they are asked for in pages (OperatorFacts.h), and are of
// slightly different times.

// The answer to "overviewFrom:" or "healthRecordFrom:", with the services of all pages. Facts that
// are not about one service are those of the first page. An idle service manager's overview is a
// refusal with the reason.
Answer<platform::Value> askAboutAllServices(DaemonClient& daemon, std::string_view selector);

// The page of "overviewFrom:" or "healthRecordFrom:" that begins with this service. An idle service
// manager's overview is a refusal with the reason, here too.
Answer<platform::Value> askForPage(DaemonClient& daemon, std::string_view selector,
                                   std::int64_t first);

// If the service manager is idle, the reason instead of a refusal that comes from that: it serves
// the operator alone, and knows no label.
Refusal orOfIdle(const Refusal& refusal, const DaemonClient::Environment& environment);

// The facts of the jobs of these services, and their entries in the catalogue, by label.
Answer<platform::Value> askForJobs(DaemonClient& daemon, const std::vector<std::string>& labels);
// The facts of jobs with the trees of their processes. Asks the job host for the trees; if it does
// not answer in time, they are left out.
platform::Value withTrees(DaemonClient& daemon, const std::vector<std::string>& labels,
                          const platform::Value& jobs);
Answer<platform::Value> askForEntries(DaemonClient& daemon, const std::vector<std::string>& labels);
// The facts of jobs as above, with how the last processes of each ended, however many there are.
Answer<platform::Value> askForJobsWithEnds(DaemonClient& daemon,
                                           const std::vector<std::string>& labels);
// Why these services run or do not, by label.
Answer<platform::Value> askForReasons(DaemonClient& daemon, const std::vector<std::string>& labels);
