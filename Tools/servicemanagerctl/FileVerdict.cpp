#include "Tools/servicemanagerctl/FileVerdict.h"

#include <cerrno>
#include <cstdlib>

#include "Platform/Values/OSStatus.h"
#include "Tools/servicemanagerctl/ExitStatus.h"
#include "Tools/servicemanagerctl/ValueJson.h"

using namespace platform;
using Kind = FileVerdict::Kind;

namespace {

Kind kindOf(const CodeSigningFailure& failure) {
  if (failure.status == kErrnoStatusBase + ENOENT || failure.status == kErrnoStatusBase + ENOTDIR)
    return Kind::kMissing;
  switch (verdictOf(failure)) {
    case CodeVerdict::kIntact:
      return Kind::kIntact;
    case CodeVerdict::kDamaged:
      return Kind::kDamaged;
    case CodeVerdict::kNotSigned:
      return Kind::kNotSigned;
    case CodeVerdict::kUnknown:
      return Kind::kUnknown;
  }
  return Kind::kUnknown;
}

std::string_view sentenceBegin(Kind kind) {
  switch (kind) {
    case Kind::kIntact:
      return "intact";
    case Kind::kNotSigned:
      return "not signed";
    case Kind::kUnknown:
      return "could not be told";
    case Kind::kMissing:
      return "there is no such file";
    case Kind::kDamaged:
      return "damaged, or not signed by a trusted signer";
  }
  return "";
}

}  // namespace

FileVerdict fileVerdict(const CodeSigningResult<void>& check) {
  if (check) return {};
  return {kindOf(check.error()), check.error().reason};
}

std::string_view verdictWord(Kind kind) {
  switch (kind) {
    case Kind::kIntact:
      return "intact";
    case Kind::kNotSigned:
      return "unsigned";
    case Kind::kUnknown:
      return "unknown";
    case Kind::kMissing:
      return "missing";
    case Kind::kDamaged:
      return "damaged";
  }
  return "";
}

std::string inWords(const FileVerdict& verdict) {
  std::string text(sentenceBegin(verdict.kind));
  if (!verdict.reason.empty()) text += ": " + plain(verdict.reason);
  return text;
}

int exitStatusOf(Kind kind) {
  switch (kind) {
    case Kind::kIntact:
      return EXIT_SUCCESS;
    case Kind::kNotSigned:
      return kExitNotSigned;
    case Kind::kUnknown:
      return kExitNotTold;
    case Kind::kMissing:
      return kExitUnknownLabel;
    case Kind::kDamaged:
      return kExitFailed;
  }
  return kExitFailed;
}
