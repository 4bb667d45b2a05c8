#pragma once

#include <cstdint>

// The keys of the operator's server's answers, which are dictionaries of plain values. A fact that
// is not known or does not apply is absent.

// Facts of the service manager and of every service.
inline constexpr char kFactOperatingMode[] = "OperatingMode";  // integer, see OperatingMode.h
// Boolean: an installer has begun and not ended yet. The primary service's end changes the mode.
inline constexpr char kFactIsInstallerAtWork[] = "IsInstallerAtWork";
inline constexpr char kFactProduct[] = "Product";  // the installed one's name
inline constexpr char kFactPrimary[] = "Primary";  // the primary service's label
// Seconds until services that are not ready are started again, until a change of the settings is
// evaluated, and until the watchdog checks the configuration server; reals.
inline constexpr char kFactRetryIn[] = "RetryIn";
inline constexpr char kFactSettingsEvaluationIn[] = "SettingsEvaluationIn";
inline constexpr char kFactWatchDogIn[] = "WatchDogIn";
// Boolean: a change of the settings came outside normal mode, and further ones wait for an
// evaluation in normal mode.
inline constexpr char kFactSettingsChangesWait[] = "SettingsChangesWait";

// A dictionary, only in answers that did not wait for the main thread, because that is busy: for
// how many seconds (a real), and, if it says so, its work (a word of MainThreadWork.h) and the
// label of the service.
inline constexpr char kFactMainThread[] = "MainThread";
inline constexpr char kFactBusyFor[] = "BusyFor";
inline constexpr char kFactWork[] = "Work";
inline constexpr char kFactWorkLabel[] = "Label";

// Facts of the service manager alone.
// Text: why it is idle. Then there are no services.
inline constexpr char kFactIdleReason[] = "IdleReason";
// Boolean: it has been started lately, and does not watch every service that runs yet.
inline constexpr char kFactIsTakingOver[] = "IsTakingOver";
inline constexpr char kFactServices[] = "Services";  // by label, the facts marked with * below
// In the answers to "overviewFrom:" and "healthRecordFrom:", which have the services of one page:
// the number of all services.
inline constexpr char kFactServiceCount[] = "ServiceCount";
inline constexpr std::int64_t kServicesInAPage = 2000;
inline constexpr char kFactOtherServices[] = "OtherServices";  // other products': label to products

// Facts of a service.
inline constexpr char kFactLabel[] = "Label";
inline constexpr char kFactProducts[] = "Products";        // the names of those that it belongs to
inline constexpr char kFactIsOfProduct[] = "IsOfProduct";  // boolean: if true, the rest is there
// Why it runs or does not; see reasonOf(). Another product's service has one, too.
inline constexpr char kFactReason[] = "Reason";
inline constexpr char kFactType[] = "Type";                // * see serviceTypeForLabel()
inline constexpr char kFactIsMonitored[] = "IsMonitored";  // * boolean
// * boolean: a user interface asked to stop it.
inline constexpr char kFactIsStopped[] = "IsStoppedByUserInterface";
// * real: seconds until it is stopped, because an evaluation found no switch that asks for it.
inline constexpr char kFactStopIn[] = "StopIn";
// * The work on it, absent if there is none: one of the words below, and for how many seconds, a
// real.
inline constexpr char kFactActivity[] = "Activity";
inline constexpr char kFactActivityFor[] = "ActivityFor";
inline constexpr char kActivityAsksForItsJob[] = "asksForItsJob";
inline constexpr char kActivityConfiguresExtensions[] = "configuresExtensions";
inline constexpr char kActivityIsSubmitted[] = "isSubmitted";
inline constexpr char kActivityAwaitsProcess[] = "awaitsProcess";
inline constexpr char kActivityIsRemoved[] = "isRemoved";
inline constexpr char kActivityIsRemovedBeforeItRuns[] = "isRemovedBeforeItRuns";
// * array: the names of its extensions whose last start has failed; absent if there are none.
inline constexpr char kFactFailedExtensions[] = "FailedExtensions";
inline constexpr char kFactIsPrimaryStopped[] = "IsPrimaryStoppedByUserInterface";
// Its job's "ThrottleInterval", as in the catalogue.
inline constexpr char kFactThrottle[] = "ThrottleInterval";
inline constexpr char kFactMinimumOSVersion[] = "MinimumOSVersion";     // * as in the catalogue
inline constexpr char kFactNeededKernel[] = "NeededKernelMajorNumber";  // of a known release
inline constexpr char kFactKernel[] = "KernelMajorNumber";
inline constexpr char kFactIsSupported[] = "IsSupported";  // boolean: by this system
inline constexpr char kFactProgram[] = "Program";  // its path; absent: the service has no job
// How many seconds ago an evaluation has checked it last, a real. The next facts are what it has
// found. They are absent if none has needed the program yet.
inline constexpr char kFactProgramCheckedAgo[] = "ProgramCheckedAgo";
inline constexpr char kFactProgramExists[] = "ProgramExists";
inline constexpr char kFactProgramIsIntact[] = "ProgramIsIntact";
// * Instead: it can't be checked now, and is checked again.
inline constexpr char kFactProgramIsUnchecked[] = "ProgramIsUnchecked";
inline constexpr char kFactProgramFault[] = "ProgramFault";  // why it is not, or can't be checked
inline constexpr char kFactProgramIdentifier[] = "ProgramIdentifier";  // that its signature names
// A word of CodeProtection: what keeps an intact program as it was when it was verified.
inline constexpr char kFactProgramProtection[] = "ProgramProtection";
// The job host's last answer about its job: "PID", "LastExitStatus", "LastExitStatusUnknown",
// "History", "ProgramHasChanged".
// Absent if there is no job, or if the host has not told of it. "jobsOfServices:" answers with this
// and the next.
inline constexpr char kFactJob[] = "Job";
inline constexpr char kFactJobIsUnknown[] = "JobIsUnknown";  // instead: the host has not answered
inline constexpr char kFactHealth[] = "Health";  // its part of ServiceHealth::healthRecord()
// Boolean: it will be started again after kFactRetryIn.
inline constexpr char kFactIsRetried[] = "IsRetried";
// Boolean: its "Features" are not an array.
inline constexpr char kFactFeaturesAreMalformed[] = "FeaturesAreMalformed";
inline constexpr char kFactSwitches[] = "Switches";  // array; a feature service's alone

// Facts of a switch.
inline constexpr char kFactFeature[] = "Feature";
inline constexpr char kFactSource[] = "Source";  // the prefix of its settings server
inline constexpr char kFactKey[] = "Key";
inline constexpr char kFactExpected[] = "Expected";
inline constexpr char kFactCurrent[] = "Current";
// Real: how many seconds ago an evaluation was told this value; absent if the server has told it
// now.
inline constexpr char kFactCurrentAge[] = "CurrentAge";
inline constexpr char kFactRefusal[] = "Refusal";  // that exception's name and reason
inline constexpr char kFactOutcome[] = "Outcome";  // one of these
inline constexpr char kOutcomeMatches[] = "matches";
inline constexpr char kOutcomeDiffers[] = "differs";
inline constexpr char kOutcomeClashes[] = "clashes";    // of types that can't be compared
inline constexpr char kOutcomeAbsent[] = "absent";      // no such setting
inline constexpr char kOutcomeNoAnswer[] = "noAnswer";  // its settings server does not answer
inline constexpr char kOutcomeRefused[] = "refused";    // it answers with an exception
inline constexpr char kOutcomeNotAsked[] = "notAsked";  // no evaluation has needed it yet
inline constexpr char kOutcomeNoSource[] = "noSource";  // there is no such settings server

// Facts of an extension of the catalogue.
inline constexpr char kFactKextIdentifier[] = "Identifier";  // absent: the catalogue has none
inline constexpr char kFactKextPath[] = "Path";              // absent: it is not installed
inline constexpr char kFactKextFault[] = "Fault";            // why loading it would fail
// Absent, although it has an identifier, if the job host does not answer.
inline constexpr char kFactKextIsLoaded[] = "IsLoaded";
// The path that the loaded extension came from, if that is not the path above.
inline constexpr char kFactKextLoadedPath[] = "LoadedPath";
// The process of a loaded user-space extension; 0 while it has none.
inline constexpr char kFactKextProcess[] = "PID";
inline constexpr char kFactKextIsConnected[] = "IsConnected";  // its control accepts connections
inline constexpr char kFactKextIsAnswering[] = "IsAnswering";  // answers; absent: unconnected
inline constexpr char kFactKextIsConfigured[] =
    "IsConfigured";  // by this daemon, and not restarted since
// The step at which its last start has failed (a word of ExtensionControl.h), and how many seconds
// ago that was, a real.
inline constexpr char kFactKextFailedStep[] = "FailedStep";
inline constexpr char kFactKextFailedAgo[] = "FailedAgo";
inline constexpr char kFactKextServices[] = "Services";  // the labels that name it

// Facts of an answer to "eventsAfter:".
inline constexpr char kFactEvents[] = "Events";        // array, the oldest first
inline constexpr char kFactLastEvent[] = "LastEvent";  // integer: ask for what follows it next
// Integer: how many events are not told, because the daemon does not keep them any more.
inline constexpr char kFactMissedEvents[] = "MissedEvents";

// Facts of an event.
inline constexpr char kFactEvent[] = "Event";     // one of the words below
inline constexpr char kFactEventTime[] = "Time";  // a date
// "Label", and its process, absent if it has ended.
inline constexpr char kEventService[] = "service";
inline constexpr char kFactEventProcess[] = "PID";
inline constexpr char kEventSettings[] = "settings";    // "Key", absent if it is not announced
inline constexpr char kEventMode[] = "mode";            // "OperatingMode"
inline constexpr char kEventInstaller[] = "installer";  // "IsInstallerAtWork"
// Its name, and "FailedStep" if its start has failed.
inline constexpr char kEventExtension[] = "extension";
inline constexpr char kFactEventExtension[] = "Extension";
// "Label" of a feature service, and whether its switches ask for it: another result than before.
inline constexpr char kEventEvaluation[] = "evaluation";
inline constexpr char kFactEventIsWanted[] = "IsWanted";
