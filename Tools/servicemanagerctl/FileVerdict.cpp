#include "Tools/servicemanagerctl/FileVerdict.h"

#include <cerrno>
#include <cstdlib>

#include "Platform/Values/OSStatus.h"
#include "Tools/servicemanagerctl/ExitStatus.h"
#include "Tools/servicemanagerctl/ValueJson.h"

using namespace platform;

namespace {

FileVerdict::Kind kindOf(const CodeSigningFailure& failure) {
  if (failure.status == kErrnoStatusBase + ENOENT || failure.status == kErrnoStatusBase + ENOTDIR)
    return FileVerdict::Kind::kMissing;
  switch (verdictOf(failure)) {
    case CodeVerdict::kIntact:
      return FileVerdict::Kind::kIntact;
    case CodeVerdict::kDamaged:
      return FileVerdict::Kind::kDamaged;
    case CodeVerdict::kNotSigned:
      return FileVerdict::Kind::kNotSigned;
    case CodeVerdict::kUnknown:
      return FileVerdict::Kind::kUnknown;
  }
  return FileVerdict::Kind::kUnknown;
}

std::string_view sentenceBegin(FileVerdict::Kind kind) {
  switch (kind) {
    case FileVerdict::Kind::kIntact:
      return "intact";
    case FileVerdict::Kind::kNotSigned:
      return "not signed";
    case FileVerdict::Kind::kUnknown:
      return "could not be told";
    case FileVerdict::Kind::kMissing:
      return "there is no such file";
    case FileVerdict::Kind::kDamaged:
      return "damaged, or not signed by a trusted signer";
  }
  return "";
}

}  // namespace

FileVerdict fileVerdict(const CodeSigningResult<void>& check) {
  if (check) return {};
  return {kindOf(check.error()), check.error().reason};
}

std::string_view verdictWord(FileVerdict::Kind kind) {
  switch (kind) {
    case FileVerdict::Kind::kIntact:
      return "intact";
    case FileVerdict::Kind::kNotSigned:
      return "unsigned";
    case FileVerdict::Kind::kUnknown:
      return "unknown";
    case FileVerdict::Kind::kMissing:
      return "missing";
    case FileVerdict::Kind::kDamaged:
      return "damaged";
  }
  return "";
}

std::string inWords(const FileVerdict& verdict) {
  std::string text(sentenceBegin(verdict.kind));
  if (!verdict.reason.empty()) text += ": " + plain(verdict.reason);
  return text;
}

int exitStatusOf(FileVerdict::Kind kind) {
  switch (kind) {
    case FileVerdict::Kind::kIntact:
      return EXIT_SUCCESS;
    case FileVerdict::Kind::kNotSigned:
      return kExitNotSigned;
    case FileVerdict::Kind::kUnknown:
      return kExitNotTold;
    case FileVerdict::Kind::kMissing:
      return kExitUnknownLabel;
    case FileVerdict::Kind::kDamaged:
      return kExitFailed;
  }
  return kExitFailed;
}
