// The events of the daemon in any order. Whatever they are, everything ends, and each service is in
// the end as the user interface wants it.

#include <algorithm>
#include <chrono>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "ServiceManager/ServiceManager/ServiceManager_fixture.h"
#include "ServiceManager/Supervision/KernelExtensions_fixture.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;

class RandomOrdersTest : public WithKernelExtensions<ServiceManagerFixture> {
 protected:
  // It has no health record, whose retry starts each service that is not ready, also one that a
  // user interface has stopped.
  RandomOrdersTest() {
    startConfigurationServer();
    client_->onNotice = [this] { checkNotice(client_->notices.back()); };
  }

  struct Event {
    std::string name;
    std::function<void()> happens;
    bool isHarmless = false;  // the daemon needs no help after it
  };
  std::vector<Event> events() {
    std::vector<Event> events{
        {"installer begins",
         [this] { manager().shutdownServices({kAgent, kHelper}, [this](bool) { ++answers_; }); }},
        {"installer ends", [this] { manager().evaluateServices(); }},
        {"setting changes", [this] { manager().handleGlobalSettingsDidChange({}); }, true},
        {"server starts", [this] { manager().handleGlobalSettingsServerDidStart({}); }, true},
        {"server ends", [this] { manager().handleGlobalSettingsServerWillShutdown({}); }},
        {"bus returns", [this] { manager().handleNotificationsReturn(); }, true},
        {"extension is missing", [this] { setMissing(true); }},
        {"extension is there", [this] { setMissing(false); }},
        {"host hangs", [this] { jobs_.setHung(true); }},
        {"host is gone", [this] { jobs_.setReachable(false); }},
        {"host returns", [this] { returnHost(); }},
        {"turn", [this] { loop_.runReady(); }, true},
        {"wait", [this] { loop_.advanceBy(700ms); }, true},
        {"long wait", [this] { loop_.advanceBy(7s); }, true}};
    for (const char* label : {kPrimary, kAgent, kHelper}) {
      const std::string of = std::string(" of ") + label;
      // Without the primary service the daemon evaluates no other one.
      const bool isOther = label != kPrimary;
      events.push_back({"stop" + of, [this, label] { manager().stopServices({label}); }, isOther});
      events.push_back(
          {"start" + of, [this, label] { manager().startServices({label}); }, isOther});
      events.push_back({"end" + of,
                        [this, label] {
                          if (isRunning(label)) jobs_.endProcess(label);
                        },
                        true});
    }
    return events;
  }
  void setMissing(bool isMissing) {
    for (const char* extension : {kNetwork, kOther}) {
      if (isMissing) extensions_.crash(extension);
      extensions_.setLoadFails(extension, isMissing);
    }
  }
  void returnHost() {
    jobs_.setReachable(true);
    jobs_.setHung(false);
    manager().handleJobHostReturn();
  }

  // A stop that fails leaves the process to its watch, so a start may be told again. Nothing else
  // is told twice.
  void checkNotice(const Value& notice) {
    const std::string label = *notice["Label"].string();
    const std::int64_t process = notice["PID"].integer().value_or(0);
    std::int64_t& told = told_[label];  // the process; 0 if none runs
    if (notice["status"] == Value(1)) {
      EXPECT_GT(process, 0);
      EXPECT_TRUE(told == 0 || told == process) << label << " was not told to have ended";
    } else {
      EXPECT_GT(told, 0) << label << " was not told to run";
    }
    told = process;
  }

  // Nothing goes on. Each service is as the user interface wants it, and both the operator and the
  // clients are told so.
  void checkEnd() {
    ASSERT_FALSE(manager().isEvaluating());
    std::size_t running = 0;
    for (const char* label : {kPrimary, kAgent, kHelper}) {
      SCOPED_TRACE(label);
      const bool isStopped = manager().isServiceBeingTrackedForUserClientShutdownRequest(label);
      ASSERT_EQ(isRunning(label), !isStopped);
      ASSERT_EQ(manager().isServiceBeingTrackedForRespawn(label), !isStopped);
      ASSERT_EQ(told_[label], isStopped ? 0 : process(label));
      const Value reason = serviceFacts(label)[kFactReason];
      ASSERT_EQ(reason == Value(label == kPrimary ? kReasonPrimary : kReasonCore), !isStopped);
      if (!isStopped) ++running;
    }
    ASSERT_EQ(exitWatcher_.watchCount(), running);
  }

  // Brings back what has failed, and repeats requests that nobody repeats.
  void help() {
    setMissing(false);
    returnHost();
    loop_.advanceBy(2min);
    manager().evaluateServices();
    manager().handleGlobalSettingsServerDidStart({});
    loop_.advanceBy(1min);
    // In the installer's mode a return does not repeat a stop that has failed.
    returnHost();
    loop_.advanceBy(1min);
    manager().startServices({kPrimary});
    manager().evaluateSystemConfiguration();
    loop_.advanceBy(1min);
  }

  const std::shared_ptr<UserInterface> client_ = registerClient();
  std::map<std::string, std::int64_t> told_;  // to the client
  int answers_ = 0;                           // to the installer
};

TEST_F(RandomOrdersTest, EachServiceEndsAsItIsWanted) {
  const std::vector<Event> all = events();
  std::vector<Event> harmless;
  std::ranges::copy_if(all, std::back_inserter(harmless), &Event::isHarmless);
  std::mt19937 random(1);  // The same orders in each run.
  for (int order = 0; order < 1000; ++order) {
    const bool isHarmless = order % 2 == 1;
    const std::vector<Event>& events = isHarmless ? harmless : all;
    std::string names;
    int begun = 0;
    answers_ = 0;
    for (int i = 0; i < 15; ++i) {
      const Event& event = events[random() % events.size()];
      names += (names.empty() ? "" : ", ") + event.name;
      if (event.name == all[0].name) ++begun;
      event.happens();
    }
    if (isHarmless) {
      loop_.advanceBy(2min);
    } else {
      help();
    }
    SCOPED_TRACE(names);
    ASSERT_EQ(answers_, begun);
    ASSERT_NO_FATAL_FAILURE(checkEnd());
    ASSERT_FALSE(HasFailure());
    takeLog();
    client_->notices.clear();
  }
}

}  // namespace
