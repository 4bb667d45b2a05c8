#pragma once

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "Platform/Values/Value.h"
#include "ServiceManager/Catalogue/FeatureSwitches.h"
#include "ServiceManager/Catalogue/ServiceCatalogue.h"
#include "ServiceManager/ServiceManager/EvaluationTimers.h"
#include "ServiceManager/Settings/SettingsQuestions.h"

// Decides whether a feature service runs: asks for the settings of its switches, and compares them.
// One switch that matches makes the service run; without any it is shut down after a while.
// Belongs to the main thread.
class FeatureEvaluation {
 public:
  struct Environment {
    const ServiceCatalogue& catalogue;
    SettingsQuestions& settings;
    EvaluationTimers& timers;
    // Asked again when the settings have come.
    std::function<bool(const std::string& label)> mayEvaluate;
    std::function<bool()> isInNormalMode;
    std::function<void(const std::string& label)> run;
    std::function<void(const std::string& label)> shutDown;
    // Gives the service another turn.
    std::function<void(const std::string& label)> evaluateAgain;
    // The settings of a service have come, and it needs no other turn.
    std::function<void()> onAnswer;
  };

  explicit FeatureEvaluation(Environment environment) : environment_(std::move(environment)) {}
  FeatureEvaluation(const FeatureEvaluation&) = delete;
  FeatureEvaluation& operator=(const FeatureEvaluation&) = delete;

  void evaluate(const std::string& label);
  // Whether settings are being asked for.
  bool isAsking() const { return !asked_.empty(); }

 private:
  using Configurations = std::vector<FeatureConfiguration>;
  void settingsHaveCome(const std::string& label, const Configurations& configurations,
                        const SettingsQuestions::Values& values);
  void evaluateAfterHungServer(const std::string& label, const Configurations& configurations);
  // Whether any switch asks for the service to run.
  bool evaluateSwitches(const std::string& label, const Configurations& configurations,
                        const SettingsQuestions::Values& values);
  // Whether the switch asks for the service to run. If so, it is made to run.
  bool evaluateSwitch(const std::string& label, const std::string& feature, const std::string& key,
                      const platform::Value& expected, const platform::Value& current);

  const Environment environment_;
  // Services whose settings have been asked for, and whether they have been evaluated again since.
  std::map<std::string, bool> asked_;
};
