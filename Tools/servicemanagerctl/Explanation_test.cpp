// One file, because each test changes the same facts of one service.

#include "Tools/servicemanagerctl/Explanation.h"

#include <csignal>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "ServiceManager/Supervision/HealthRecord.h"

namespace {

using namespace platform;
using testing::Contains;
using testing::HasSubstr;
using testing::Not;
using testing::Pair;

using Changes = std::vector<Dictionary::Entry>;

// The facts of a core service that runs, with these changes; nil removes a fact.
Value factsWith(const Changes& changes) {
  Dictionary facts{{kFactLabel, "agent"},
                   {kFactIsOfProduct, true},
                   {kFactReason, "core"},
                   {kFactProduct, "home"},
                   {kFactProducts, Array{"home", "office"}},
                   {kFactPrimary, "configd"},
                   {kFactOperatingMode, 0},
                   {kFactType, "CoreService"},
                   {kFactIsMonitored, true},
                   {kFactIsStopped, false},
                   {kFactIsPrimaryStopped, false},
                   {kFactKernel, 15},
                   {kFactIsSupported, true},
                   {kFactProgram, "/opt/agent"},
                   {kFactProgramExists, true},
                   {kFactProgramIsIntact, true},
                   {kFactWatchDogIn, 100.0},
                   {kFactProgramIdentifier, "com.example.agent"},
                   {kFactJob, Dictionary{{"PID", 7}}}};
  for (const auto& [key, value] : changes) {
    if (value.isNil()) {
      facts.remove(key);
    } else {
      facts.set(key, value);
    }
  }
  return facts;
}

Dictionary aSwitch(const char* outcome, Value current = {}) {
  Dictionary row{{kFactFeature, "web"},
                 {kFactSource, "common"},
                 {kFactKey, "on"},
                 {kFactExpected, 1},
                 {kFactOutcome, outcome}};
  if (!current.isNil()) row.set(kFactCurrent, std::move(current));
  return row;
}

Changes feature(Array switches, Changes more = {}) {
  more.emplace_back(kFactType, "FeatureService");
  more.emplace_back(kFactSwitches, std::move(switches));
  return more;
}

struct ExplanationRow {
  const char* reason;  // the service manager's
  Changes changes;
  const char* verdict;
};

const std::vector<ExplanationRow> kRunning{
    {"core", {}, "agent runs as process 7, because every core service of the product is to run."},
    {"primary",
     {{kFactPrimary, "agent"}},
     "agent runs as process 7, because every other service waits for it."},
    {"switch", feature({aSwitch("differs", 0), aSwitch("matches", 1)}),
     "agent runs as process 7, because switch \"on\" of feature \"web\" asks for it."},
    {"noMatch", feature({aSwitch("differs", 0)}),
     "agent runs as process 7, although none of its switches asks for it, for the moment or until "
     "the next evaluation."},
    {"outlivedStop",
     {{kFactIsStopped, true}},
     "agent runs as process 7, although it was asked to be stopped."},
    {"unsupported",
     {{kFactMinimumOSVersion, "10.11"}, {kFactNeededKernel, 15}, {kFactKernel, 14}},
     "agent runs as process 7, although this system is too old for it."},
    {"unsupported",
     {{kFactMinimumOSVersion, "10.12"}},
     "agent runs as process 7, although it asks for release 10.12, which is not known."},
    {"malformedFeatures", feature({}, {{kFactFeaturesAreMalformed, true}}),
     "agent runs as process 7, although the features that the catalogue gives it are no list, so "
     "that it is neither started nor stopped."},
};

const std::vector<ExplanationRow> kNotRunning{
    {"noJob",
     {{kFactProgram, {}}},
     "agent does not run: the catalogue names no program that could be run for it."},
    {"unsupported",
     {{kFactMinimumOSVersion, "10.11"}, {kFactNeededKernel, 15}, {kFactKernel, 14}},
     "agent does not run: it needs release 10.11, and this system is older."},
    {"unsupported",
     {{kFactMinimumOSVersion, "10.12"}},
     "agent does not run: it asks for release 10.12, which is not known."},
    {"unsupported",
     {{kFactMinimumOSVersion, 10.8}},
     "agent does not run: its \"MinimumOSVersion\" in the catalogue is 10.8, which is no text."},
    {"primaryOtherProduct",
     {},
     "agent does not run: the primary service configd does not belong to the installed product, "
     "and without it no other is started."},
    {"stopped",
     {{kFactIsStopped, true}, {kFactOperatingMode, 1}},
     "agent does not run: it was asked to be stopped; \"servicemanagerctl start agent\" starts "
     "it."},
    {"installer",
     {{kFactOperatingMode, 1}},
     "agent does not run: an installer is at work, and it is not started until that has finished."},
    {"noProgram",
     {{kFactOperatingMode, 1},
      {kFactHealth, Dictionary{{kHealthStatus, 0}}},
      {kFactRetryIn, 7.5},
      {kFactProgramExists, false}},
     "agent does not run: its program /opt/agent is not there."},
    {"waiting",
     {{kFactOperatingMode, 2}},
     "agent does not run: the configuration server is not up, and it is not started until that is; "
     "\"servicemanagerctl explain configd\" tells of it."},
    {"primaryStopped",
     {{kFactIsPrimaryStopped, true}},
     "agent does not run: the primary service was asked to be stopped, and without it no other is "
     "started."},
    {"malformedFeatures", feature({}, {{kFactFeaturesAreMalformed, true}}),
     "agent does not run: the features that the catalogue gives it are no list, so that it is "
     "neither started nor stopped."},
    {"noSwitch", feature({}), "agent does not run: no switch could ask for it."},
    {"notEvaluated", feature({aSwitch("notAsked")}),
     "agent does not run: its switches have not been looked at yet."},
    {"noAnswer", feature({aSwitch("noAnswer"), aSwitch("differs", 0), aSwitch("noAnswer")}),
     "agent does not run: no switch asks for it that could be looked at, and no answer came from "
     "the settings server of common."},
    {"noAnswer", feature({aSwitch("refused"), aSwitch("noAnswer")}),
     "agent does not run: no switch asks for it that could be looked at, and no answer came from "
     "the settings server of common."},
    {"refused", feature({aSwitch("refused"), aSwitch("differs", 0)}),
     "agent does not run: no switch asks for it that could be looked at, and an exception came "
     "from "
     "the settings server of common."},
    {"noMatch", feature({aSwitch("absent"), aSwitch("clashes", "1"), aSwitch("noSource")}),
     "agent does not run: none of its switches asks for it."},
    {"noProgram",
     {{kFactProgramExists, false}},
     "agent does not run: its program /opt/agent is not there."},
    {"damaged",
     {{kFactProgramIsIntact, false}, {kFactProgramFault, "the digest differs"}},
     "agent does not run: its program is damaged or not signed as it should be: the digest "
     "differs."},
    {"damaged", feature({aSwitch("matches", 1)}, {{kFactProgramIsIntact, {}}}),
     "agent does not run: its program is damaged or not signed as it should be: ."},
    {"unchecked",
     {{kFactProgramIsIntact, {}},
      {kFactProgramIsUnchecked, true},
      {kFactProgramFault, "too many open files"}},
     "agent does not run: its program can't be checked now, and is checked again: too many open "
     "files."},
    {"notStarted",
     {{kFactPrimary, "agent"}, {kFactOperatingMode, 2}},
     "agent does not run: it is wanted but was not started; \"servicemanagerctl log\" tells why."},
};

TEST(ExplanationText, LinesFitTheWidth) {
  const Explanation explanation{
      .runs = false,
      .reason = {},
      .verdict = "com.example.agent does not run: it was stopped.",
      .details = {{"mode", "normal"}, {"program", "/opt/agent, damaged or not signed"}}};
  EXPECT_EQ(asText(explanation, Reader::kOther, 34),
            "com.example.agent does not run: it\nwas stopped.\n\n"
            "  mode     normal\n"
            "  program  /opt/agent, damaged or\n"
            "           not signed\n");
}

TEST(ExplanationTest, AServiceThatRunsHasOneOfTheseReasons) {
  for (const ExplanationRow& row : kRunning) {
    Changes changes = row.changes;
    changes.emplace_back(kFactReason, row.reason);
    const Explanation explanation = explain(factsWith(changes));
    EXPECT_TRUE(explanation.runs);
    EXPECT_EQ(explanation.reason, row.reason);
    EXPECT_EQ(explanation.verdict, row.verdict);
  }
}

TEST(ExplanationTest, AServiceThatDoesNotRunHasOneOfTheseReasons) {
  for (const ExplanationRow& row : kNotRunning) {
    Changes changes = row.changes;
    changes.emplace_back(kFactJob, Value());
    changes.emplace_back(kFactReason, row.reason);
    const Explanation explanation = explain(factsWith(changes));
    EXPECT_FALSE(explanation.runs);
    EXPECT_EQ(explanation.reason, row.reason);
    EXPECT_EQ(explanation.verdict, row.verdict);
  }
}

TEST(ExplanationTest, AnEndedJobWaitsForItsThrottle) {
  const Explanation explanation = explain(
      factsWith({{kFactReason, "ended"}, {kFactJob, Dictionary{{"LastExitStatus", SIGKILL}}}}));
  EXPECT_EQ(explanation.reason, "ended");
  EXPECT_EQ(explanation.verdict,
            "agent does not run: it is wanted, and its process has ended (killed by SIGKILL); the "
            "job host starts it again when its throttle allows it.");
  EXPECT_THAT(explanation.details, Contains(Pair("last exit", "killed by SIGKILL")));
}

TEST(ExplanationTest, AnInstallerIsNamedAlsoWhileTheConfigurationServerIsAwaited) {
  const auto mode = [](bool isInstallerAtWork) {
    return explain(factsWith({{kFactReason, "waiting"},
                              {kFactOperatingMode, 2},
                              {kFactIsInstallerAtWork, isInstallerAtWork}}))
        .details;
  };
  EXPECT_THAT(mode(false), Contains(Pair("mode", "waiting for the configuration server")));
  EXPECT_THAT(
      mode(true),
      Contains(Pair("mode", "waiting for the configuration server, and an installer is at work")));
}

TEST(ExplanationTest, AServiceOfAnotherProductIsNotManaged) {
  const Explanation explanation = explain(Dictionary{{kFactLabel, "agent"},
                                                     {kFactIsOfProduct, false},
                                                     {kFactReason, "otherProduct"},
                                                     {kFactProduct, "home"},
                                                     {kFactProducts, Array{"office"}}});
  EXPECT_EQ(explanation.verdict,
            "agent is not managed here: it belongs to office, and installed is home.");
  EXPECT_EQ(explanation.reason, "otherProduct");
  EXPECT_EQ(explanation.details.size(), 1u);
}

TEST(ExplanationTest, AProgramThatNoEvaluationHasNeededIsNotChecked) {
  const Explanation explanation = explain(
      factsWith({{kFactReason, "stopped"}, {kFactProgramExists, {}}, {kFactProgramIsIntact, {}}}));
  EXPECT_THAT(asText(explanation, Reader::kOther), HasSubstr("/opt/agent, not checked yet\n"));
}

TEST(ExplanationTest, EachFactThatCountsIsShown) {
  const Explanation explanation = explain(factsWith(
      feature({aSwitch("matches", 1), aSwitch("differs", 0), aSwitch("clashes", "1"),
               aSwitch("absent"), aSwitch("noAnswer"), aSwitch("notAsked"), aSwitch("noSource")},
              {{kFactMinimumOSVersion, "10.10"},
               {kFactNeededKernel, 14},
               {kFactReason, "switch"},
               {kFactIsRetried, true},
               {kFactProgramProtection, "fs-verity"},
               {kFactRetryIn, 12.34},
               {kFactStopIn, 2.04},
               {kFactSettingsChangesWait, true},
               {kFactHealth, Dictionary{{kHealthStatus, 0}, {kHealthCrashes, 4}}}})));
  EXPECT_EQ(
      asText(explanation, Reader::kOther),
      "agent runs as process 7, because switch \"on\" of feature \"web\" asks for it.\n"
      "\n"
      "  product         belongs to home, office; installed is home\n"
      "  system          needs release 10.10 (kernel 14), and this is kernel 15: supported\n"
      "  type            feature service\n"
      "  mode            normal\n"
      "  user interface  has not asked for a stop\n"
      "  switch          common: \"on\" of feature \"web\", expected 1, is 1: asks for it\n"
      "  switch          common: \"on\" of feature \"web\", expected 1, is 0: does not\n"
      "  switch          common: \"on\" of feature \"web\", expected 1, is \"1\", which is of "
      "another kind: does not\n"
      "  switch          common: \"on\" of feature \"web\", expected 1, and there is no such "
      "setting now: does not\n"
      "  switch          common: \"on\" of feature \"web\", expected 1, and its settings server "
      "gives no answer: does not\n"
      "  switch          common: \"on\" of feature \"web\", expected 1, not looked at yet\n"
      "  switch          common: \"on\" of feature \"web\", expected 1, and there is no such "
      "settings server: does not\n"
      "  program         /opt/agent, intact, signed as com.example.agent\n"
      "  kept by         the file system (fs-verity)\n"
      "  process         7\n"
      "  last exit       none yet\n"
      "  watched         yes\n"
      "  health          unready; has ended by itself 4 times since the last summary\n"
      "  stop            will be stopped in 2.0 s, since no switch asked for it\n"
      "  next retry      in 12.3 s\n"
      "  settings        a change came outside normal mode; further ones are evaluated once "
      "everything has been in normal mode again\n");
}

TEST(ExplanationTest, AServersExceptionIsShownEscaped) {
  Dictionary row = aSwitch("refused");
  row.set(kFactRefusal, "Corrupt: page\033[2J 7");
  EXPECT_THAT(
      asText(explain(factsWith(feature({row}))), Reader::kOther),
      HasSubstr(", and its settings server answers with Corrupt: page\\u001b[2J 7: does not\n"));
}

TEST(ExplanationTest, AValueOfTheLastEvaluationIsShownWithItsAge) {
  Dictionary row = aSwitch("matches", 1);
  row.set(kFactCurrentAge, 3.21);
  EXPECT_THAT(
      asText(explain(factsWith(feature({row}))), Reader::kOther),
      HasSubstr("expected 1, was 1 3.2 s ago (its settings server gives no answer now): asks "
                "for it\n"));
}

TEST(ExplanationTest, OnlyARunningServiceWillBeStopped) {
  for (const bool runs : {true, false}) {
    const Value job = runs ? Value(Dictionary{{"PID", 7}}) : Value();
    const std::string text =
        asText(explain(factsWith({{kFactStopIn, 2.04}, {kFactJob, job}})), Reader::kOther);
    EXPECT_EQ(text.contains("will be stopped in"), runs);
  }
}

TEST(ExplanationTest, FactsThatTheJobHostWithholdsAreUnknown) {
  const Explanation explanation = explain(
      factsWith({{kFactJob, Value()}, {kFactJobIsUnknown, true}, {kFactReason, "unknown"}}));
  EXPECT_EQ(explanation.reason, "unknown");
  EXPECT_EQ(explanation.verdict, "Whether agent runs is not known: the job host gives no answer.");
}

TEST(ExplanationTest, TheNumberOfCrashesIsASentence) {
  const auto health = [](const Dictionary& record) {
    for (const auto& [heading, text] : explain(factsWith({{kFactHealth, record}})).details) {
      if (heading == "health") return text;
    }
    return std::string();
  };
  EXPECT_EQ(health({{kHealthStatus, 1}, {kHealthCrashes, 0}}),
            "running; has not ended by itself since the last summary");
  EXPECT_EQ(health({{kHealthStatus, 1}, {kHealthCrashes, 1}}),
            "running; has ended by itself once since the last summary");
  EXPECT_EQ(health({{kHealthCrashes, 2}}),
            "not supervised; has ended by itself 2 times since the last summary");
}

TEST(ExplanationTest, TheNextRetryIsTheServicesEarliest) {
  const auto retry = [](Changes changes) {
    for (const auto& [heading, text] : explain(factsWith(changes)).details) {
      if (heading == "next retry") return text;
    }
    return std::string();
  };
  EXPECT_EQ(retry({}), "none is due");
  EXPECT_EQ(retry({{kFactRetryIn, 5.0}, {kFactIsRetried, false}}),
            "none is due");  // of other services
  EXPECT_EQ(retry({{kFactRetryIn, 5.0}, {kFactIsRetried, true}, {kFactOperatingMode, 1}}),
            "in 5.0 s");
  EXPECT_EQ(retry({{kFactSettingsEvaluationIn, 1.5}}),
            "everything is evaluated in 1.5 s, since a setting was changed");
  EXPECT_EQ(retry({{kFactOperatingMode, 2}}),
            "when the configuration server announces itself, or in 100.0 s");
  // The timer of the change ends without an evaluation.
  EXPECT_EQ(retry({{kFactSettingsEvaluationIn, 1.5}, {kFactOperatingMode, 1}}), "none is due");
  EXPECT_EQ(retry({{kFactSettingsEvaluationIn, 1.5}, {kFactOperatingMode, 2}}),
            "when the configuration server announces itself, or in 100.0 s");
  EXPECT_EQ(retry({{kFactSettingsEvaluationIn, 1.5}, {kFactIsPrimaryStopped, true}}),
            "none is due");
}

TEST(ExplanationTest, AMalformedFactCountsAsAbsent) {
  for (const Value& facts : {Value(), Value(Dictionary{{kFactIsOfProduct, 1}})}) {
    EXPECT_EQ(explain(facts).reason, "");
    EXPECT_EQ(explain(facts).details.size(), 1u);  // the product
  }
  EXPECT_EQ(explain(Dictionary{{kFactIsOfProduct, true}}).reason, "");
  const Explanation odd = explain(factsWith({{kFactSwitches, Array{1, "x", Dictionary()}},
                                             {kFactOperatingMode, 9},
                                             {kFactHealth, "text"},
                                             {kFactProducts, 3}}));
  EXPECT_THAT(odd.details, Contains(Pair("mode", "9, which this tool does not know")));
  EXPECT_THAT(odd.details, Contains(Pair("product", "belongs to no product; installed is home")));
}

TEST(ExplanationTest, AMissingOrUnknownReasonIsReported) {
  for (const Value& reason : {Value(), Value(1), Value("moonPhase")}) {
    EXPECT_EQ(explain(factsWith({{kFactReason, reason}})).verdict,
              "agent runs as process 7; the service manager gives no reason that this tool knows.");
    EXPECT_EQ(explain(factsWith({{kFactReason, reason}, {kFactJob, Value()}})).verdict,
              "agent does not run: the service manager gives no reason that this tool knows.");
  }
  EXPECT_EQ(explain(factsWith({{kFactReason, "moonPhase"}})).reason, "moonPhase");
}

TEST(ExplanationTest, NoControlCharacterReachesTheTerminal) {
  const char kHostile[] = "\033[2J\n";
  const Explanation explanation = explain(factsWith(feature({Dictionary{{kFactFeature, kHostile},
                                                                        {kFactKey, kHostile},
                                                                        {kFactSource, kHostile},
                                                                        {kFactExpected, kHostile},
                                                                        {kFactCurrent, kHostile},
                                                                        {kFactOutcome, "matches"}}},
                                                            {{kFactLabel, kHostile},
                                                             {kFactReason, "switch"},
                                                             {kFactProgram, kHostile},
                                                             {kFactProduct, kHostile},
                                                             {kFactProgramIdentifier, kHostile},
                                                             {kFactProducts, Array{kHostile}}})));
  EXPECT_THAT(asText(explanation, Reader::kOther), Not(HasSubstr("\033")));
  EXPECT_EQ(explain(factsWith({{kFactReason, kHostile}})).reason, "\\u001b[2J\\n");
}

TEST(ExplanationTest, ProgramsGetTheFactsToo) {
  const Value facts = factsWith({});
  const auto json = asJson(explain(facts), facts);
  EXPECT_EQ(json["label"], "agent");
  EXPECT_EQ(json["runs"], true);
  EXPECT_EQ(json["reason"], "core");
  EXPECT_EQ(json["facts"]["Job"]["PID"], 7);
}

TEST(ExplanationTest, TheLastEndIsForgottenWithTheJob) {
  const auto lastExit = [](const Changes& changes) {
    for (const auto& [heading, sentence] : explain(factsWith(changes)).details) {
      if (heading == "last exit") return sentence;
    }
    return std::string();
  };
  EXPECT_EQ(lastExit({}), "none yet");
  EXPECT_EQ(lastExit({{kFactJob, Dictionary{{"LastExitStatus", 0}}}}), "succeeded");
  EXPECT_EQ(lastExit({{kFactJob, Value()}, {kFactIsStopped, true}}),
            "not known, since it has no job now");
  EXPECT_EQ(lastExit({{kFactJob, Value()}, {kFactJobIsUnknown, true}}), "not known");
}

}  // namespace
