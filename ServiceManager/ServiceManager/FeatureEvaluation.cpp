#include "ServiceManager/ServiceManager/FeatureEvaluation.h"

#include <algorithm>

#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "Platform/Texts/StringFormat.h"
#include "ServiceManager/Catalogue/SwitchComparison.h"

using namespace platform;

void FeatureEvaluation::evaluate(const std::string& label) {
  const auto configurations = featureConfigurations(environment_.catalogue, label);
  if (!configurations) {
    vantorlogger2_line(ASL_LEVEL_ERR, "Malformed features referrences information encountered");
    return;
  }
  const auto [asked, isNew] = asked_.emplace(label, false);
  if (!isNew) {
    asked->second = true;  // The settings may have changed since they were asked for.
    return;
  }
  std::vector<SettingsQuestions::Setting> settings;
  for (const FeatureConfiguration& configuration : *configurations) {
    settings.push_back({configuration.source, std::nullopt});
    for (const auto& [key, expected] : configuration.switches) {
      settings.push_back({configuration.source, key});
    }
  }
  environment_.settings.valuesOf(
      std::move(settings),
      [this, label, configurations = *configurations](const SettingsQuestions::Values& values) {
        settingsHaveCome(label, configurations, values);
      });
}

void FeatureEvaluation::settingsHaveCome(const std::string& label,
                                         const Configurations& configurations,
                                         const SettingsQuestions::Values& values) {
  const bool isWantedAgain = asked_.extract(label).mapped();
  evaluateAfterHungServer(label, configurations);
  const bool mayEvaluate = environment_.mayEvaluate(label);
  const bool hasMatch = mayEvaluate && evaluateSwitches(label, configurations, values);
  // A slow server may have held up the values of others, which have changed since. A shutdown is
  // never withdrawn, so only values that are asked for after the last request decide on one.
  if (isWantedAgain) return environment_.evaluateAgain(label);
  if (mayEvaluate && !hasMatch) {
    environment_.timers.shutDownLater(label, [this, label] { environment_.shutDown(label); });
  }
  environment_.onAnswer();
}

// A hung server's switches count as off. A server that goes on announces nothing, so it is asked
// again when the pause is over. Each evaluation that finds it hung costs one later one.
void FeatureEvaluation::evaluateAfterHungServer(const std::string& label,
                                                const Configurations& configurations) {
  const bool wasAnyHung = std::ranges::any_of(configurations, [this](const auto& configuration) {
    return configuration.source && environment_.settings.isHung(*configuration.source);
  });
  if (!wasAnyHung) return;
  environment_.timers.performAfterDelay({"ask the hung server", label},
                                        EvaluationTimers::kHungServerRetryDelay,
                                        [this, label] { environment_.evaluateAgain(label); });
}

bool FeatureEvaluation::evaluateSwitches(const std::string& label,
                                         const Configurations& configurations,
                                         const SettingsQuestions::Values& values) {
  bool hasMatch = false;
  auto value = values.begin();
  for (const FeatureConfiguration& configuration : configurations) {
    ++value;  // The client alone.
    for (const auto& [key, expected] : configuration.switches) {
      if (evaluateSwitch(label, configuration.feature, key, expected, *value++)) hasMatch = true;
    }
  }
  return hasMatch;
}

bool FeatureEvaluation::evaluateSwitch(const std::string& label, const std::string& feature,
                                       const std::string& key, const Value& expected,
                                       const Value& current) {
  switch (compareSwitch(expected, current)) {
    case SwitchComparison::kAbsent:
      if (environment_.isInNormalMode()) {
        vantorlogger2_line(ASL_LEVEL_WARNING,
                           stringWithFormat("%@ exposes an invalid configuration switch key \"%@\" "
                                            "referenced by service %@",
                                            feature, key, label));
      }
      return false;
    case SwitchComparison::kDiffers:
      return false;
    case SwitchComparison::kRaises:
      vantorlogger2_line(
          ASL_LEVEL_ERR,
          stringWithFormat("%@:The expected object for the switchkey \"%@\" do not match the "
                           "return switchkey value \"%@\" of type \"%@\"",
                           label, key, current, className(current)));
      return false;
    case SwitchComparison::kMatches:
      environment_.run(label);
      return true;
  }
  return false;
}
