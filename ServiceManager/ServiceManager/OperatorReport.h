#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Files/FileReader.h"
#include "Platform/RunLoops/RunLoop.h"
#include "Platform/SystemFacts/SystemInformation.h"
#include "Platform/Values/Value.h"
#include "ServiceManager/Catalogue/FeatureSwitches.h"
#include "ServiceManager/Catalogue/ServiceCatalogue.h"
#include "ServiceManager/Catalogue/ServiceDecision.h"
#include "ServiceManager/ServiceManager/EvaluationTimers.h"
#include "ServiceManager/Settings/SettingsSources.h"
#include "ServiceManager/Supervision/ExtensionControl.h"
#include "ServiceManager/Supervision/LaunchdJobs.h"
#include "ServiceManager/Supervision/MonitoringRecords.h"
#include "ServiceManager/Supervision/ServiceHealth.h"
#include "Shared/ORBSigningValidator.h"

// The report to the operator on the daemon and its services; the keys are in OperatorFacts.h and
// HealthRecord.h. A report must not change what the daemon will do: it makes no client of a
// settings server, clears no counter and logs nothing of its own. Belongs to the main thread.
class OperatorReport {
 public:
  // All of it outlives this.
  struct Environment {
    const platform::RunLoop& runLoop;
    platform::FileReader& files;
    const platform::SystemInformation& system;
    const ORBSigningValidator& validator;
    const KernelExtensionsPlatform& extensionsPlatform;
    const ServiceCatalogue& catalogue;
    const LaunchdJobs& jobs;
    const MonitoringRecords& records;
    const ExtensionControl& extensions;
    const std::map<std::string, bool>& askedSources;  // see SettingsQuestions.h
    SettingsSources& sources;                         // for probes
    const EvaluationTimers& timers;
    const std::unique_ptr<ServiceHealth>& health;  // null if the product keeps none
    const std::optional<std::string>& product;
    const std::int64_t& operatingMode;
  };

  explicit OperatorReport(const Environment& environment) : environment_(environment) {}

  platform::Value overview() const;
  // Nil if the product keeps no health record.
  platform::Value healthRecord() const;
  // Nil if no service of any product has the label. Asks the job host, which blocks for its
  // time-out at most, and each settings server of the service's switches, for two seconds at most.
  platform::Value factsOfService(std::string_view label) const;
  // The facts of the jobs of those labels that are services of this product, by label.
  platform::Value jobsOfServices(const platform::Array& labels) const;
  // The extensions of the catalogue by name. Blocks for a second at most for each extension that
  // takes no connection.
  platform::Dictionary extensions() const;

 private:
  void addOperatingFacts(platform::Dictionary& facts) const;
  void addMarksOfService(platform::Dictionary& facts, std::string_view label) const;
  ServiceJobState addJobFacts(platform::Dictionary& facts, std::string_view label) const;
  // Each of these adds its facts both to `facts` and to the situation of the service.
  void addSystemFacts(platform::Dictionary& facts, ServiceSituation& situation,
                      const platform::Value& entry) const;
  void addProgramFacts(platform::Dictionary& facts, ServiceSituation& situation,
                       std::string_view label) const;
  void addHealthFacts(platform::Dictionary& facts, ServiceSituation& situation,
                      std::string_view label) const;
  void addSwitches(platform::Dictionary& facts, ServiceSituation& situation,
                   std::string_view label) const;
  // The rest of the time that each settings server gets to answer for these facts, by its prefix.
  using SourceTimes = std::map<std::string, platform::Duration>;
  // Adds its result to the facts of the switch.
  SwitchOutcome addSwitchFacts(platform::Dictionary& facts,
                               const FeatureConfiguration& configuration, const std::string& key,
                               const platform::Value& expected, SourceTimes& left) const;
  platform::Dictionary factsOfKext(const std::string& name,
                                   const std::optional<std::string>& identifier) const;

  const Environment environment_;
};
