#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "Platform/Values/Value.h"
#include "Tools/servicemanagerctl/DaemonClient.h"

// The labels of the command line.

// The labels of all services in the service manager's overview, also of other products, sorted.
std::vector<std::string> labelsIn(const platform::Value& overview);

// Up to three of the known labels that the user may have meant, the most similar one first.
std::vector<std::string> nearestLabels(std::string_view label,
                                       const std::vector<std::string>& known);

// The error for an unknown label.
Refusal unknownLabel(const std::string& label, const std::vector<std::string>& known);

// The known labels that these patterns name, in the order of `known`, each once; all of them
// without a pattern. A pattern has "*", "?" and "[" as a shell's, and may match nothing. A label
// without them must be known.
Answer<std::vector<std::string>> selectLabels(const std::vector<std::string>& patterns,
                                              const std::vector<std::string>& known);
