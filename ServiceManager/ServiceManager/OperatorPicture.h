#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "Platform/Values/Time.h"
#include "Platform/Values/Value.h"
#include "ServiceManager/Catalogue/OperatingMode.h"
#include "ServiceManager/Catalogue/ServiceCatalogue.h"
#include "ServiceManager/ServiceManager/EvaluationTimers.h"
#include "ServiceManager/Supervision/MonitoringRecords.h"

// The state of the daemon at one instant, for the operator. The main thread takes it, and other
// threads share it unchanged.
struct OperatorPicture {
  platform::Instant taken{};
  std::shared_ptr<const ServiceCatalogue> catalogue = {};  // never null; shared by all pictures
  std::optional<std::string> product = {};
  std::int64_t operatingMode = ORBOperatingModeNormal;
  MonitoringRecords records = {};
  EvaluationTimers::DueTimes timers = {};
  std::set<std::string> kextsLoaded = {};
  std::map<std::string, bool> askedSources = {};  // see SettingsQuestions.h
  platform::Value healthRecord = {};              // nil if the product keeps none
};
