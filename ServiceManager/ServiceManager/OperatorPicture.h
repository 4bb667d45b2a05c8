#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "Platform/Values/KernelIds.h"
#include "Platform/Values/Time.h"
#include "Platform/Values/Value.h"
#include "ServiceManager/Catalogue/OperatingMode.h"
#include "ServiceManager/Catalogue/ServiceCatalogue.h"
#include "ServiceManager/ServiceManager/EvaluationTimers.h"
#include "ServiceManager/Settings/SettingsQuestions.h"
#include "ServiceManager/Supervision/ExtensionControl.h"
#include "ServiceManager/Supervision/KnownJobs.h"
#include "ServiceManager/Supervision/MonitoringRecords.h"
#include "ServiceManager/Supervision/ProgramFindings.h"
#include "ServiceManager/Supervision/ServiceEnforcement.h"

// The state of the daemon at one instant, for the operator. The main thread takes it, and other
// threads share it unchanged.
struct OperatorPicture {
  platform::Instant taken{};
  std::shared_ptr<const ServiceCatalogue> catalogue = {};  // never null; shared by all pictures
  std::optional<std::string> idleReason = {};
  std::optional<std::string> product = {};
  std::int64_t operatingMode = ORBOperatingModeNormal;
  bool isInstallerAtWork = false;
  bool isTakingOver = false;  // not every service that runs is watched yet
  MonitoringRecords records = {};
  // These are never null. They are tables that do not change, shared with later pictures.
  std::shared_ptr<const KnownJobTable> jobs = std::make_shared<const KnownJobTable>();
  std::shared_ptr<const ProgramFindings::Table> programs =
      std::make_shared<const ProgramFindings::Table>();
  EvaluationTimers::DueTimes timers = {};
  std::map<std::string, platform::ProcessId> configuredExtensions = {};
  std::map<std::string, ServiceEnforcement::Work, std::less<>> work = {};
  std::set<std::string, std::less<>> unchecked = {};  // the services whose program is checked again
  ExtensionControl::Failures extensionFailures = {};
  std::map<std::string, AskedSource> askedSources = {};
  SettingsQuestions::LastValues lastValues = {};
  platform::Value healthRecord = {};  // nil if the product keeps none
};
