#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "Platform/Jobs/JobHistory.h"
#include "Platform/Jobs/Jobs.h"
#include "Platform/Messages/NSProxy.h"
#include "Platform/RunLoops/RunLoop.h"
#include "Platform/SystemFacts/SystemInformation.h"
#include "Platform/Values/Value.h"
#include "ServiceManager/Catalogue/FeatureSwitches.h"
#include "ServiceManager/Catalogue/ServiceDecision.h"
#include "ServiceManager/ServiceManager/OperatorPicture.h"
#include "ServiceManager/Settings/SettingsQuestions.h"
#include "ServiceManager/Settings/SettingsSources.h"
#include "ServiceManager/Supervision/ExtensionLoad.h"
#include "ServiceManager/Supervision/KnownJobs.h"

// The report to the operator on the daemon and its services; the keys are in OperatorFacts.h and
// HealthRecord.h. A report must not change what the daemon will do: it asks no settings server that
// no evaluation has needed, clears no counter and logs nothing of its own. Belongs to the
// operator's thread.
class OperatorReport {
 public:
  // All of it outlives this.
  struct Environment {
    const platform::RunLoop& runLoop;
    const platform::SystemInformation& system;
    KernelExtensionsPlatform extensions;
    platform::Jobs& jobs;      // for trees
    SettingsSources& sources;  // for probes
  };

  explicit OperatorReport(const Environment& environment) : environment_(environment) {}

  // A part of the services in the catalogue's order. All of them, or all of their facts, need not
  // fit into one message.
  struct Page {
    std::size_t first = 0;
    std::size_t count = SIZE_MAX;
  };
  platform::Value overview(const OperatorPicture& picture, Page page) const;
  platform::Value overview(const OperatorPicture& picture) const { return overview(picture, {}); }
  // The part of the health record that is about the services of a page; nil without a record.
  platform::Value healthRecord(const OperatorPicture& picture, Page page) const;
  // The entries of those labels that are services of this product, by label.
  platform::Value entriesOfServices(const OperatorPicture& picture,
                                    const platform::Array& labels) const;
  // Nil if no service of any product has the label. Asks the settings servers of the service's
  // switches, all of which together block for 40 ms at most.
  platform::Value factsOfService(const OperatorPicture& picture, std::string_view label);
  // The facts of the jobs of those labels that are services of this product, by label.
  platform::Value jobsOfServices(const OperatorPicture& picture,
                                 const platform::Array& labels) const;
  // The trees of those that have a process (kJobTreeKey), by label. Asks the job host, since
  // nobody else can tell how much the processes take now. After a second, or an answer that did not
  // come, it is not asked about further jobs. So this blocks for a second and one time-out at most.
  platform::Value treesOfServices(const OperatorPicture& picture,
                                  const platform::Array& labels) const;
  // The extensions of the catalogue by name. Blocks for a second at most for each extension that
  // takes no connection.
  platform::Dictionary extensions(const OperatorPicture& picture) const;
  // Why those of these services that are of this product run or do not, by label. Asks no settings
  // server: the switches have the values of the last evaluation.
  platform::Value reasonsOfServices(const OperatorPicture& picture, const platform::Array& labels);

 private:
  // The rest of the time that settings servers get to answer for these facts.
  struct ProbeTimes {
    platform::Duration all{};
    std::map<std::string, platform::Duration> ofSource = {};  // by prefix
  };
  platform::Value factsOf(const OperatorPicture& picture, std::string_view label, ProbeTimes left);
  platform::Duration until(platform::Instant due) const;
  void addOperatingFacts(platform::Dictionary& facts, const OperatorPicture& picture) const;
  void addMarksOfService(platform::Dictionary& facts, const OperatorPicture& picture,
                         std::string_view label) const;
  static ServiceJobState addJobFacts(platform::Dictionary& facts, const KnownJob& job,
                                     platform::JobHistoryDetail detail);
  // Each of these adds its facts both to `facts` and to the situation of the service.
  void addSystemFacts(platform::Dictionary& facts, ServiceSituation& situation,
                      const platform::Value& entry) const;
  void addProgramFacts(platform::Dictionary& facts, ServiceSituation& situation,
                       const OperatorPicture& picture, std::string_view label) const;
  void addHealthFacts(platform::Dictionary& facts, ServiceSituation& situation,
                      const OperatorPicture& picture, std::string_view label) const;
  void addSwitches(platform::Dictionary& facts, ServiceSituation& situation,
                   const OperatorPicture& picture, std::string_view label, ProbeTimes& left);
  // These add their results to the facts of the switch.
  SwitchOutcome addSwitchFacts(platform::Dictionary& facts, const OperatorPicture& picture,
                               const FeatureConfiguration& configuration, const std::string& key,
                               const platform::Value& expected, ProbeTimes& left);
  SwitchOutcome addLastValue(platform::Dictionary& facts, const OperatorPicture& picture,
                             const std::string& source, const std::string& key,
                             const platform::Value& expected) const;
  platform::MessageResult probe(SettingsClient& client,
                                const std::pair<const std::string, AskedSource>& asked,
                                const std::string& key, ProbeTimes& left);
  platform::Duration timeFor(const std::string& source, AskedSource state) const;
  platform::Dictionary factsOfKext(const OperatorPicture& picture, const std::string& name,
                                   const std::optional<std::string>& identifier) const;

  const Environment environment_;
  // The settings servers that did not answer a probe, and until when they get less time.
  std::map<std::string, platform::Instant> hungUntil_;
};
