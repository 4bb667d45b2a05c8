#include "Shared/ORBSigningValidator.h"

#include "Logger/Logger.h"
#include "Platform/Texts/StringFormat.h"

using namespace platform;

namespace {

// A client of the log for one verdict. Without its own, the first line on a thread would open the
// client of all library code that speaks on the thread later, and hide the names that it opens.
class LogClient {
 public:
  LogClient() { vantorlogger_open("ORBSigningValidator", "com.vantor.hostagent"); }
  LogClient(const LogClient&) = delete;
  LogClient& operator=(const LogClient&) = delete;
  ~LogClient() { vantorlogger_close(); }
};

}  // namespace

ORBSigningValidator::Verdict ORBSigningValidator::validateBundle(const std::string& path) const {
  return validate(path, SecStaticCode::Kind::kBundle);
}

ORBSigningValidator::Verdict ORBSigningValidator::validateProgram(const std::string& path) const {
  return validate(path, SecStaticCode::Kind::kProgram);
}

ORBSigningValidator::Verdict ORBSigningValidator::validate(const std::string& path,
                                                           SecStaticCode::Kind wanted) const {
  const LogClient client;
  const char* const what = wanted == SecStaticCode::Kind::kBundle ? "bundle" : "program";
  auto verdict = check(path, wanted);
  if (!verdict) {
    const CodeSigningFailure& failure = verdict.error();
    const CodeVerdict fault = verdictOf(failure);
    if (fault == CodeVerdict::kUnknown) {
      vantorlogger_line(ASL_LEVEL_WARNING,
                        stringWithFormat("The %s '%@' can't be checked now (status: %i): %@", what,
                                         path, failure.status, failure.reason));
    } else {
      vantorlogger_line(ASL_LEVEL_ERR,
                        stringWithFormat("The %s '%@' is not intact (status: %i): %@", what, path,
                                         failure.status, failure.reason));
    }
    return {fault, failure.status, failure.reason, std::nullopt};
  }
  vantorlogger_line(ASL_LEVEL_DEBUG, stringWithFormat("The %s '%@' is intact, identifier: %@", what,
                                                      path, verdict->identifier));
  return *std::move(verdict);
}

CodeSigningResult<ORBSigningValidator::Verdict> ORBSigningValidator::check(
    const std::string& path, SecStaticCode::Kind wanted) const {
  const auto code = signatures_.SecStaticCodeCreateWithPath(path);
  if (!code) return std::unexpected(code.error());
  if ((*code)->kind() != wanted) {
    const bool isBundle = (*code)->kind() == SecStaticCode::Kind::kBundle;
    return std::unexpected(CodeSigningFailure{
        errSecCSBadObjectFormat,
        path + (isBundle ? ": is a folder, not a program" : ": is a file, not a bundle")});
  }
  if (auto valid = checkCodeThatRuns(**code); !valid) return std::unexpected(valid.error());
  const auto information = (*code)->SecCodeCopySigningInformation(kSecCSDefaultFlags);
  if (!information) return std::unexpected(information.error());
  Verdict verdict{CodeVerdict::kIntact, errSecSuccess, {}, std::nullopt, (*code)->verifiedFile()};
  if (const std::string* text = (*information)[kSecCodeInfoIdentifier].string()) {
    verdict.identifier = *text;
  }
  return verdict;
}
