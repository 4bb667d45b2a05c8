#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "Platform/Values/Value.h"
#include "ServiceManager/Catalogue/CatalogueLookups.h"
#include "ServiceManager/Catalogue/OperatingMode.h"
#include "ServiceManager/Catalogue/SwitchComparison.h"

// The decisions about one service. The evaluation and the enforcement take each of them when they
// come to it, and the operator's report takes all of them at once. Pure; any thread.

// Whether an evaluation may decide about a service, or what keeps it from that.
enum class EvaluationPermission {
  kGranted,
  kInstallerIsAtWork,
  kPrimaryIsNotReady,
  kStoppedByUserInterface,
};
EvaluationPermission evaluationPermission(std::int64_t operatingMode, bool isStopped);

enum class OSSupport { kSupported, kTooOld, kUnknownRelease };
// Whether a system with this kernel may run a service with this "MinimumOSVersion", which is nil if
// the service has none.
OSSupport osSupport(const platform::Value& minimumOSVersion, std::int64_t kernelMajorNumber);

enum class ProgramState {
  kMissing,
  kDamaged,
  kUnknown,  // it could not be checked; this stops no service, and starts none
  kSound,
};

// The job host's answer about a service's job.
enum class ServiceJobState { kUnknown, kAbsent, kHasNoProcess, kRuns };

// How a switch's setting was found. A switch asks for its service only if it matches.
enum class SwitchOutcome {
  kMatches,
  kDiffers,
  kClashes,   // the setting is of a type that can't be compared
  kAbsent,    // the settings have no value
  kNoAnswer,  // its settings server does not answer
  kRefused,   // its settings server answers with an exception
  kNotAsked,  // no evaluation has needed its settings server yet
  kNoSource,  // there is no such settings server
};
SwitchOutcome outcomeOf(SwitchComparison comparison);

// All that the decisions about a service depend on.
struct ServiceSituation {
  bool isOfProduct = true;
  bool isPrimary = false;
  std::string_view type = kCoreService;
  std::int64_t operatingMode = ORBOperatingModeNormal;
  bool isStopped = false;           // by the user interface
  bool isPrimaryStopped = false;    // by the user interface
  bool isPrimaryOfProduct = true;   // else no evaluation gets beyond the primary service
  bool hasFailedExtension = false;  // the last start of one of its extensions has failed
  // The service is not ready, and the timer that starts such services again is running.
  bool isRetried = false;
  OSSupport support = OSSupport::kSupported;
  // Nothing if the catalogue gives the service no job.
  std::optional<ProgramState> program = ProgramState::kSound;
  ServiceJobState job = ServiceJobState::kAbsent;
  bool areFeaturesMalformed = false;
  std::vector<SwitchOutcome> switches = {};  // a feature service's alone
};

// Why a service runs or does not: one of the words below. If several reasons apply, the lasting
// ones come first: a service that is stopped stays so when the installer has finished.
std::string_view reasonOf(const ServiceSituation& situation);

inline constexpr std::string_view kReasonOtherProduct = "otherProduct";

// Why it runs.
inline constexpr std::string_view kReasonOutlivedStop = "outlivedStop";
inline constexpr std::string_view kReasonPrimary = "primary";
inline constexpr std::string_view kReasonCore = "core";
inline constexpr std::string_view kReasonSwitch = "switch";

// Why it does not run.
inline constexpr std::string_view kReasonUnknown = "unknown";  // whether it runs
inline constexpr std::string_view kReasonNoJob = "noJob";
inline constexpr std::string_view kReasonStopped = "stopped";
inline constexpr std::string_view kReasonInstaller = "installer";
inline constexpr std::string_view kReasonWaiting = "waiting";
inline constexpr std::string_view kReasonPrimaryStopped = "primaryStopped";
inline constexpr std::string_view kReasonPrimaryOtherProduct = "primaryOtherProduct";
inline constexpr std::string_view kReasonNoProgram = "noProgram";
inline constexpr std::string_view kReasonDamaged = "damaged";
inline constexpr std::string_view kReasonUnchecked = "unchecked";
inline constexpr std::string_view kReasonExtension = "extension";
inline constexpr std::string_view kReasonEnded = "ended";
inline constexpr std::string_view kReasonNotStarted = "notStarted";

// Why it does not run, or should not although it does.
inline constexpr std::string_view kReasonUnsupported = "unsupported";
inline constexpr std::string_view kReasonMalformedFeatures = "malformedFeatures";
inline constexpr std::string_view kReasonNoSwitch = "noSwitch";
inline constexpr std::string_view kReasonNotEvaluated = "notEvaluated";
inline constexpr std::string_view kReasonNoAnswer = "noAnswer";
inline constexpr std::string_view kReasonRefused = "refused";
inline constexpr std::string_view kReasonNoMatch = "noMatch";
