// One file, because it is one table: each code and its page.

#include "Tools/lint/FindingCodes.h"

#include <algorithm>
#include <array>
#include <cctype>

namespace lint {
namespace {

constexpr std::array kCodes{
    FindingCode{
        kUnreadable, Severity::kError, "The file can't be read.",
        "Nothing was checked. Only regular files of at most 8 MiB are read. Give the path of a "
        "file that this user may read."},
    FindingCode{
        kNoPropertyList, Severity::kError, "The file is not a property list.",
        "The reader of property lists is strict: a tag that is not closed, a key that occurs "
        "twice, a number that is none, or an unknown element make the whole file unusable. "
        "The programs that read it say the same and use nothing of it. Correct the place "
        "that is named; there may be more mistakes behind it."},
    FindingCode{
        kNoKnownKind, Severity::kError,
        "The file is neither a catalogue, nor a job, nor platform.plist.",
        "The kind of a file follows from its keys: \"Services\" and \"Primary\" are those of a "
        "catalogue, \"Label\" and \"Program\" those of a job, \"LogSink\" and \"KernelRelease\" "
        "those of platform.plist. Only an empty file that is called platform.plist may have "
        "none. vantor-catalogue(5), vantor-jobs(5) and vantor-platform(5) list all keys."},
    FindingCode{
        kTooManyFindings, Severity::kWarning, "The file has more findings.",
        "Only the first ones of each file are listed. Repair these, and check the file again."},
    FindingCode{
        kMisspeltKey, Severity::kWarning, "A key is nearly one that exists.",
        "An unknown key is no error to the reader: it has no effect, so a misspelt key makes "
        "its setting as good as absent. Letters count, also whether they are capital. Write "
        "the key that is suggested, or give one of your own another name."},
    FindingCode{kUnknownKey, Severity::kWarning, "A key is unknown.",
                "It has no effect: nothing reads it. Remove it, or look up the right one in "
                "vantor-catalogue(5) or vantor-jobs(5). A remark belongs into an XML comment."},

    FindingCode{
        kWrongType, Severity::kError, "A value has another type than its key needs.",
        "The service manager reads a value of the wrong type as if it were absent, with one "
        "exception: if a service's \"Features\" are not an array, it is neither started nor "
        "stopped by any switch."},
    FindingCode{
        kMissingKey, Severity::kError, "A key is missing without which the rest is of no use.",
        "Without one of the five keys at the root, the service manager stays idle and starts "
        "nothing. An extension without \"Identifier\" can't be loaded, so no service that needs "
        "it is started. A configuration without \"Source\" has no settings server to ask."},
    FindingCode{
        kUndefinedPrimary, Severity::kError, "\"Services\" has no entry of the primary service.",
        "Every service depends on the primary one, which keeps the settings. Without it the "
        "service manager stays idle. Name a label of \"Services\" in \"Primary\"."},
    FindingCode{
        kPrimaryWithoutJob, Severity::kError, "The primary service has no job.",
        "It needs a \"JobSpec\" with a \"Program\", and the catalogue a \"ProgramPath\"; else the "
        "service manager stays idle."},
    FindingCode{
        kProductWithoutPrimary, Severity::kError,
        "A product has services, but not the primary one.",
        "If this product is installed, the service manager finds no primary service and "
        "evaluates nothing: none of the product's services is started. Add the product to the "
        "\"Products\" of the primary service."},
    FindingCode{
        kServiceWithoutJob, Severity::kError, "A service has no job, so it is never started.",
        "A service needs a \"JobSpec\" with a \"Program\", which is a path below \"ProgramPath\". "
        "The service manager skips a service without them and logs nothing."},
    FindingCode{
        kServiceOfNoProduct, Severity::kWarning, "A service belongs to no product.",
        "Only the services whose \"Products\" name the installed product exist for the service "
        "manager. One without products never runs."},
    FindingCode{
        kUnknownProduct, Severity::kError, "There is no such product.",
        "The products are fixed: kKLXInstallTypePersonalID, kKLXInstallTypeServerManagedID, "
        "kKLXInstallTypeUnmanagedID, kKLXInstallTypeHostedManagedID and "
        "kKLXInstallTypeHouseholdID. Another name matches no installation."},
    FindingCode{kUndefinedExtension, Severity::kError,
                "A service needs an extension that is not defined.",
                "Loading it fails, so the service is never started. Define the name in "
                "\"KernelExtensions\" at the root, with the identifier of the bundle."},
    FindingCode{
        kUnusedExtension, Severity::kNote, "No service needs this extension.",
        "It is never loaded. Remove it, or name it in the \"KernelExtensions\" of a service."},
    FindingCode{kUnknownOption, Severity::kWarning,
                "An extension has an option that has no meaning.",
                "The only option is \"secure\": the extension is told the secret of the run."},
    FindingCode{kUndefinedFeature, Severity::kError, "A service has a feature that is not defined.",
                "No switch can ask for it. Define the name in \"Features\" at the root."},
    FindingCode{
        kUnusedFeature, Severity::kNote, "No service has this feature.",
        "Its switches start nothing. Remove it, or name it in the \"Features\" of a service."},
    FindingCode{
        kNoSwitchCanStartIt, Severity::kWarning, "No switch can start this service.",
        "A service with \"Features\" runs only while a switch of one of them asks for it, also "
        "if the array is empty. This one has no switch at all. Leave \"Features\" out if it "
        "shall always run."},
    FindingCode{
        kUnknownSource, Severity::kError, "There is no such settings server.",
        "\"Source\" is one of update, common, deviceControl, appControl, cmx, heartbeat, ntp and "
        "webControl. The switches of another one count as off."},
    FindingCode{kUnmatchableSwitch, Severity::kError, "No setting can match this switch.",
                "A setting is compared with a number, a boolean or a string. An expected value of "
                "another type matches nothing, so this switch is always off."},
    FindingCode{
        kUnknownRelease, Severity::kError, "The release is not known, so the service never runs.",
        "\"MinimumOSVersion\" is one of 10.8, 10.9, 10.10 and 10.11. A service that asks for "
        "another one is started on no system."},
    FindingCode{kSharedNotification, Severity::kWarning, "Two services announce their start alike.",
                "The service manager takes the notification for that of the first service in the "
                "catalogue. Give each service its own."},
    FindingCode{kFeatureServiceWithoutNotification, Severity::kNote,
                "A feature service does not announce its start.",
                "The service manager logs at its start that the service emits no start-up message, "
                "and learns of a start by itself only from the job host."},
    FindingCode{kReplacedJobKey, Severity::kWarning, "The service manager replaces this value.",
                "Every service is kept alive, its output is discarded, and its label is its key in "
                "\"Services\", whatever \"JobSpec\" says. Remove the key."},
    FindingCode{kSharedMachService, Severity::kError, "Two services have the same Mach service.",
                "The job host gives a name to one job and refuses the other job."},
    FindingCode{
        kConditionalPrimary, Severity::kWarning, "A condition of the primary service is ignored.",
        "The switches are kept by the primary service, so it runs whatever its \"Features\" "
        "are. Remove them."},
    FindingCode{kRelativeProgramPath, Severity::kError, "\"ProgramPath\" is no absolute path.",
                "The job host refuses a job whose program has no absolute path, so no service is "
                "started."},
    FindingCode{kAbsoluteProgram, Severity::kWarning,
                "\"Program\" is joined to \"ProgramPath\", although it "
                "begins with a slash.",
                "In a catalogue it is always a path below \"ProgramPath\": /usr/bin/agent becomes "
                "/usr/lib/example/usr/bin/agent."},
    FindingCode{
        kSharedHealthName, Severity::kWarning, "Two services share a row of the health summary.",
        "The summary names a service by the first of its \"ProgramArguments\". Of two services "
        "with the same one in the same product, only the last one is reported."},
    FindingCode{
        kUnusableProductInfo, Severity::kError, "The installed product can't be told.",
        "The service manager reads the product's GUID from the property list \"ProductInfo\" in "
        "the folder \"ProgramPath\", under the key \"ProductInfoKey\". Without a GUID that it "
        "knows it stays idle."},

    FindingCode{kRefusedValue, Severity::kError, "The job host refuses this value.",
                "A job with one wrong value is refused as a whole, so it is never started. "
                "vantor-jobs(5) has the type and the limits of each key."},
    FindingCode{
        kUnsupportedKey, Severity::kError, "The job host can't do what this key asks for.",
        "It refuses the job, because a job that silently ran at other times than it says would "
        "be worse than none. Remove the key."},
    FindingCode{
        kKeyWithoutEffect, Severity::kWarning, "The key has no effect here.",
        "The job host knows the key, accepts it and does nothing about it; its log says so."},
    FindingCode{kUnusableJob, Severity::kError, "The job host refuses this job.",
                "Something concerns more than one key: the label or the program is missing, a soft "
                "limit is above the hard one, or the dictionary is too large."},
    FindingCode{
        kNothingStartsIt, Severity::kWarning, "Nothing starts this job.",
        "It has neither \"RunAtLoad\", nor \"KeepAlive\", nor \"MachServices\", so the job host "
        "accepts it and never starts a process."},
    FindingCode{
        kSurprisingThrottle, Severity::kWarning, "The throttle is unusual.",
        "Two starts are \"ThrottleInterval\" seconds apart at least, 10 without the key. With 0 "
        "only short runs in a row are delayed, by a second at most, so a crash loop is a "
        "process per second. With minutes, a service that crashes once is away for minutes."},
    FindingCode{
        kSurprisingExitTimeOut, Severity::kWarning, "The time for the end is unusual.",
        "\"ExitTimeOut\" is the time between SIGTERM and SIGKILL, 20 seconds without the key. "
        "With 0 a process that hangs is never killed, and a stop, an installer and a shutdown "
        "wait for it. With minutes they may wait for minutes."},

    FindingCode{kMissingProgram, Severity::kError, "The program is missing.",
                "The folder is there, but not the program. The service is not started."},
    FindingCode{kNoProgram, Severity::kError, "The file can't be executed.",
                "It is no regular file, or nobody may execute it (chmod a+x)."},
    FindingCode{kUnsignedProgram, Severity::kError, "The program is not signed.",
                "The service manager starts only programs with the signature of a signer that "
                "the platform trusts. Sign it with codeseal(1)."},
    FindingCode{
        kRefusedProgram, Severity::kError, "The program's signature or place is not trusted.",
        "The file was changed after it was signed, its signer is not trusted by this platform, "
        "or others than root can change it or a folder above it. The service is not started."},
    FindingCode{
        kUncheckedPrograms, Severity::kNote, "Programs were not looked at.",
        "Their folder is not on this machine, or this user can't check signatures here. Lint "
        "the file again where the product is installed, with --root if that is another "
        "platform root."},

    FindingCode{kUnknownPlatformKey, Severity::kError, "platform.plist has an unknown key.",
                "A typing error could open the product to everybody, so no program of the product "
                "starts with an unknown key. vantor-platform(5) lists the keys."},
    FindingCode{kRefusedPlatformValue, Severity::kError,
                "platform.plist has a value that is refused.",
                "No program of the product starts with it. vantor-platform(5) has the type and the "
                "limits of each key."},
    FindingCode{kIgnoredEntry, Severity::kWarning, "An entry is ignored.",
                "The listeners of the installer and of the secret are never open to everybody."},
    FindingCode{
        kContradictoryRelease, Severity::kWarning, "The two releases contradict each other.",
        "Services compare \"MinimumOSVersion\" with the kernel's release, and other programs are "
        "told \"OSVersion\". 10.N belongs to the kernel N + 4. Leave \"OSVersion\" out, and it "
        "follows from the kernel."},
    FindingCode{
        kErrorsAreNotLogged, Severity::kWarning, "Errors are not logged.",
        "\"LogLevel\" is the least severe level that is logged, as syslog counts: below 3 even "
        "errors are left out, and nothing tells why a service does not run."},
};

}  // namespace

std::string_view nameOf(Severity severity) {
  switch (severity) {
    case Severity::kError:
      return "error";
    case Severity::kWarning:
      return "warning";
    case Severity::kNote:
      return "note";
  }
  return "";
}

std::span<const FindingCode> findingCodes() { return kCodes; }

const FindingCode* findingCode(std::string_view code) {
  const auto isSame = [](char one, char other) {
    return std::toupper(static_cast<unsigned char>(one)) ==
           std::toupper(static_cast<unsigned char>(other));
  };
  const auto found = std::ranges::find_if(kCodes, [&](const FindingCode& known) {
    return std::ranges::equal(known.code, code, isSame);
  });
  return found == kCodes.end() ? nullptr : &*found;
}

}  // namespace lint
