#include "Platform/CodeSigning/CodeSignature.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>

#include "Platform/Texts/StringFormat.h"

namespace platform {
namespace {

constexpr std::string_view kAnchored = "anchor apple generic";

constexpr std::string_view kVerityWord = "fs-verity";
constexpr std::string_view kImmutableWord = "immutable";
constexpr std::string_view kRecheckWord = "re-check";

// The words of a requirement, separated by single blanks.
std::string withSingleBlanks(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\r\n";
  std::string words;
  for (std::size_t at = 0; (at = text.find_first_not_of(kBlanks, at)) != text.npos;) {
    const std::size_t end = std::min(text.find_first_of(kBlanks, at), text.size());
    if (!words.empty()) words += ' ';
    words += text.substr(at, end - at);
    at = end;
  }
  return words;
}

}  // namespace

CodeVerdict verdictOf(const CodeSigningFailure& failure) {
  if (failure.status == errSecCSUnsigned) return CodeVerdict::kNotSigned;
  if (failure.status < kErrnoStatusBase) return CodeVerdict::kDamaged;
  switch (failure.status - kErrnoStatusBase) {
    case EPERM:
    case ENOENT:
    case ENOTDIR:
    case EISDIR:
    case ELOOP:
    case ENAMETOOLONG:
    case EINVAL:  // a zero byte in a path
    case EFBIG:
      return CodeVerdict::kDamaged;
    default:  // There are many, and none of them says what the file contains.
      return CodeVerdict::kUnknown;
  }
}

std::string_view protectionWord(CodeProtection protection) {
  switch (protection) {
    case CodeProtection::kVerity:
      return kVerityWord;
    case CodeProtection::kImmutable:
      return kImmutableWord;
    case CodeProtection::kRecheck:
      break;
  }
  return kRecheckWord;
}

std::string_view describeProtection(std::string_view word) {
  if (word == kVerityWord) return "the file system (fs-verity)";
  if (word == kImmutableWord) return "its place, where nobody can write it (immutable)";
  return "a comparison with what was verified, before each start (re-check)";
}

NSError errorObject(const CodeSigningFailure& failure) {
  return {"NSOSStatusErrorDomain", failure.status, failure.reason};
}

CodeSigningResult<SecRequirement> SecRequirementCreateWithString(std::string_view text) {
  const std::string words = withSingleBlanks(text);
  if (words != kAnchored) {
    return std::unexpected(CodeSigningFailure{
        errSecCSReqFailed,
        stringWithFormat("\"%@\": the only requirement known here is \"%@\"", words, kAnchored)});
  }
  return SecRequirement(std::string(kAnchored));
}

CodeSigningResult<void> checkCodeThatRuns(SecStaticCode& code) {
  const auto requirement = SecRequirementCreateWithString(kAnchored);
  if (!requirement) return std::unexpected(requirement.error());
  return code.SecStaticCodeCheckValidityWithErrors(
      kSecCSCheckAllArchitectures | kSecCSCheckTrustedPlace, *requirement);
}

}  // namespace platform
