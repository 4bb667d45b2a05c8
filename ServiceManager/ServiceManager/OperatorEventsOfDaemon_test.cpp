// The events that the daemon tells the operator.

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "ServiceManager/ServiceManager/OperatorEvents.h"
#include "ServiceManager/ServiceManager/Operator_fixture.h"

namespace {

using namespace std::chrono_literals;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

class OperatorEventsOfDaemon : public OperatorFixture {
 protected:
  OperatorEventsOfDaemon() {
    startAll();
    events();
  }

  // The events since the last call, as "event subject number".
  std::vector<std::string> events() {
    // A request that has to wait would outlive the caller's answer.
    if (ask("eventsAfter:", {-1})[kFactLastEvent] == last_) return {};
    const Value answer = ask("eventsAfter:", {last_});
    last_ = answer[kFactLastEvent];
    std::vector<std::string> texts;
    for (const Value& event : *answer[kFactEvents].array()) {
      std::string text = *event[kFactEvent].string();
      for (const char* key : {kFactLabel, kFactKey, kFactEventExtension})
        if (event[key].string()) text += " " + *event[key].string();
      for (const char* key : {kFactOperatingMode, kFactIsInstallerAtWork, kFactEventIsWanted}) {
        if (event[key].boolean())
          text += *event[key].boolean() ? " yes" : " no";
        else if (event[key].integer())
          text += " " + std::to_string(*event[key].integer());
      }
      texts.push_back(text);
    }
    return texts;
  }

  Value last_ = 0;
};

TEST_F(OperatorEventsOfDaemon, AnInstallerChangesTheMode) {
  shutDown({});
  EXPECT_THAT(events(), ElementsAre("mode 1", "installer yes"));
  shutDown({});  // another one beside it
  manager().evaluateServices();
  loop_.advanceBy(1s);
  EXPECT_THAT(events(), AllOf(Contains("mode 0"), Contains("installer no")));
}

TEST_F(OperatorEventsOfDaemon, AChangeOfTheSettingsHasItsResult) {
  settings("common")["on"] = 0;
  manager().handleGlobalSettingsDidChange(
      {"changed", std::nullopt, Dictionary{{"KLXGlobalSettingsKeyModified", "on"}}});
  EXPECT_THAT(events(), ElementsAre("settings on"));
  loop_.advanceBy(10s);
  EXPECT_THAT(events(), AllOf(Contains("evaluation com.example.agent no"),
                              Contains("service com.example.agent")));
}

TEST_F(OperatorEventsOfDaemon, TheSameResultIsToldOnce) {
  manager().evaluateSystemConfiguration();
  loop_.advanceBy(10s);
  EXPECT_THAT(events(), IsEmpty());
}

}  // namespace
