#pragma once

#include <optional>
#include <string_view>

#include "Platform/Value.h"

// The daemon's one main class. Belongs to the main thread; takes no lock.
class ORBServiceManager final {
 public:
  // A service's label: its key in the catalogue and its job's label. Nothing is nil.
  using Label = std::optional<std::string_view>;

  // The catalogue's lookups: pure functions of the catalogue dictionary they are given, nil where
  // the path through it is missing or a value on it has another type than it should.

  // What every job has, whatever the catalogue says: it is kept alive, its output discarded.
  static platform::Dictionary defaultJobInfoTemplate();
  static platform::Value serviceEntryWithLabel(Label label, const platform::Value& inServicePlist);
  static platform::Value featureEntryWithFeatureName(Label featureName,
                                                     const platform::Value& inServicePlist);
  // The service's job dictionary.
  static platform::Value jobInfoWithLabel(Label label, const platform::Value& inServicePlist);
  // kCoreService or kFeatureService.
  static std::string_view serviceTypeForLabel(Label label, const platform::Value& inServicePlist);
  // The job dictionary of the service that everything else depends on.
  static platform::Value primaryServiceInfo(const platform::Value& inServicePlist);

  static constexpr std::string_view kCoreService = "CoreService";
  static constexpr std::string_view kFeatureService = "FeatureService";
};
