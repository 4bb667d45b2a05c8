#pragma once

#include <span>
#include <string_view>

namespace lint {

enum class Severity { kError, kWarning, kNote };

// "error", "warning", "note".
std::string_view nameOf(Severity severity);

// A kind of finding. A code is never given another meaning.
struct FindingCode {
  std::string_view code;
  Severity severity = Severity::kError;
  std::string_view title;        // one sentence
  std::string_view explanation;  // why it matters, and what to do
};

std::span<const FindingCode> findingCodes();

// Null if there is no such code. Letters may be small.
const FindingCode* findingCode(std::string_view code);

// Any file.
inline constexpr std::string_view kUnreadable = "F001";
inline constexpr std::string_view kNoPropertyList = "F002";
inline constexpr std::string_view kNoKnownKind = "F003";
inline constexpr std::string_view kTooManyFindings = "F004";
inline constexpr std::string_view kMisspeltKey = "F005";
inline constexpr std::string_view kUnknownKey = "F006";

// Catalogues.
inline constexpr std::string_view kWrongType = "C001";
inline constexpr std::string_view kMissingKey = "C002";
inline constexpr std::string_view kUndefinedPrimary = "C003";
inline constexpr std::string_view kPrimaryWithoutJob = "C004";
inline constexpr std::string_view kProductWithoutPrimary = "C005";
inline constexpr std::string_view kServiceWithoutJob = "C006";
inline constexpr std::string_view kServiceOfNoProduct = "C007";
inline constexpr std::string_view kUnknownProduct = "C008";
inline constexpr std::string_view kUndefinedExtension = "C009";
inline constexpr std::string_view kUnusedExtension = "C010";
inline constexpr std::string_view kUnknownOption = "C011";
inline constexpr std::string_view kUndefinedFeature = "C012";
inline constexpr std::string_view kUnusedFeature = "C013";
inline constexpr std::string_view kNoSwitchCanStartIt = "C014";
inline constexpr std::string_view kUnknownSource = "C015";
inline constexpr std::string_view kUnmatchableSwitch = "C016";
inline constexpr std::string_view kUnknownRelease = "C017";
inline constexpr std::string_view kSharedNotification = "C018";
inline constexpr std::string_view kFeatureServiceWithoutNotification = "C019";
inline constexpr std::string_view kReplacedJobKey = "C020";
inline constexpr std::string_view kSharedMachService = "C021";
inline constexpr std::string_view kConditionalPrimary = "C022";
inline constexpr std::string_view kRelativeProgramPath = "C023";
inline constexpr std::string_view kAbsoluteProgram = "C024";
inline constexpr std::string_view kSharedHealthName = "C025";
inline constexpr std::string_view kUnusableProductInfo = "C026";

// Jobs, also those in a catalogue.
inline constexpr std::string_view kRefusedValue = "J001";
inline constexpr std::string_view kUnsupportedKey = "J002";
inline constexpr std::string_view kKeyWithoutEffect = "J003";
inline constexpr std::string_view kUnusableJob = "J004";
inline constexpr std::string_view kNothingStartsIt = "J005";
inline constexpr std::string_view kSurprisingThrottle = "J006";
inline constexpr std::string_view kSurprisingExitTimeOut = "J007";

// Programs, as they are on this machine.
inline constexpr std::string_view kMissingProgram = "X001";
inline constexpr std::string_view kNoProgram = "X002";
inline constexpr std::string_view kUnsignedProgram = "X003";
inline constexpr std::string_view kRefusedProgram = "X004";
inline constexpr std::string_view kUncheckedPrograms = "X005";

// The platform's configuration.
inline constexpr std::string_view kUnknownPlatformKey = "P001";
inline constexpr std::string_view kRefusedPlatformValue = "P002";
inline constexpr std::string_view kIgnoredEntry = "P003";
inline constexpr std::string_view kContradictoryRelease = "P004";
inline constexpr std::string_view kErrorsAreNotLogged = "P005";

}  // namespace lint
