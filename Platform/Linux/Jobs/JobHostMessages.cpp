#include "Platform/Linux/Jobs/JobHostMessages.h"

#include "Platform/Jobs/Jobs.h"
#include "Platform/SystemFacts/PlatformConfiguration.h"

namespace platform {

std::string jobHostSocket(const std::string& root) {
  return pathBelowRoot(root, "run/vantor/launchd");
}

Value failureAnswer(const NSError& error) { return Array{error.code, error.localizedDescription}; }

std::optional<NSError> failureIn(const Value& answer) {
  const Array* failure = answer.array();
  if (!failure) return std::nullopt;
  if (failure->size() != 2 || !(*failure)[0].integer() || !(*failure)[1].string()) {
    return NSError{kCFErrorDomainLaunchd, static_cast<int>(LaunchdError::kInternal),
                   "the job host's answer is malformed"};
  }
  return NSError{kCFErrorDomainLaunchd, *(*failure)[0].integer(), *(*failure)[1].string()};
}

}  // namespace platform
