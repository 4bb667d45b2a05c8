#include "Tools/servicemanagerctl/ActionRemarks.h"

#include <fmt/format.h>

#include "ServiceManager/Catalogue/ServiceDecision.h"
#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "Tools/servicemanagerctl/Explanation.h"
#include "Tools/servicemanagerctl/ValueJson.h"

using namespace platform;

namespace {

std::string labelOf(const Value& facts) {
  const std::string* label = facts[kFactLabel].string();
  return label ? plain(*label) : "it";
}

bool isWanted(const std::string& reason) {
  return reason == kReasonPrimary || reason == kReasonCore || reason == kReasonSwitch;
}

}  // namespace

std::string remarkAfterStart(const Value& facts) {
  const Explanation explanation = explain(facts);
  if (!explanation.runs) return explanation.verdict;
  if (const auto stopIn = facts[kFactStopIn].real()) {
    return fmt::format(
        "{} will be stopped in {:.1f} s, since no switch asks for it; "
        "\"servicemanagerctl explain {}\" names the switches",
        labelOf(facts), *stopIn, labelOf(facts));
  }
  return isWanted(explanation.reason) ? std::string() : explanation.verdict;
}

std::string remarkAfterStop(const Value& facts) {
  const Explanation explanation = explain(facts);
  if (explanation.runs) return explanation.verdict;
  if (facts[kFactIsRetried] != Value(true)) return {};
  return fmt::format("{} was not ready before, and will be started again in {:.1f} s",
                     labelOf(facts), facts[kFactRetryIn].real().value_or(0));
}

std::string lastingOfStop(const std::vector<std::string>& labels) {
  const bool isOne = labels.size() == 1;
  return fmt::format(
      "{} until \"servicemanagerctl start {}\", or until the service manager is started again",
      isOne ? "it stays stopped" : "they stay stopped", isOne ? plain(labels.front()) : "LABEL");
}
