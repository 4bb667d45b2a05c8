#pragma once

#include <optional>
#include <string_view>

#include "Platform/Values/Value.h"

// The lookups in a catalogue, which is the property list Service.plist: pure functions of the
// dictionary that they are given. Each is nil if the path through the dictionary is missing or a
// value on it has another type than it should. Any thread.

// The label of a service, which is its key in the catalogue and the label of its job, or the name
// of a feature. An empty one stands for nil, which a peer may send.
using Label = std::optional<std::string_view>;

// The two types of services: a core service always runs, a feature service while a switch asks for
// it.
inline constexpr std::string_view kCoreService = "CoreService";
inline constexpr std::string_view kFeatureService = "FeatureService";

// The keys that every job has, whatever the catalogue says: it is kept alive and its output is
// discarded.
platform::Dictionary defaultJobInfoTemplate();

platform::Value serviceEntryWithLabel(Label label, const platform::Value& inServicePlist);
platform::Value featureEntryWithFeatureName(Label featureName,
                                            const platform::Value& inServicePlist);

// The dictionary with which the service's job is submitted.
platform::Value jobInfoWithLabel(Label label, const platform::Value& inServicePlist);

// kCoreService or kFeatureService.
std::string_view serviceTypeForLabel(Label label, const platform::Value& inServicePlist);

// The job dictionary of the primary service, on which every other service depends.
platform::Value primaryServiceInfo(const platform::Value& inServicePlist);
