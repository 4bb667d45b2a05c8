// The events of the daemon in any order. Whatever they are, everything ends, and each service is in
// the end as the user interface wants it.

#include <chrono>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "ServiceManager/ServiceManager/ServiceManager_fixture.h"
#include "ServiceManager/Supervision/KernelExtensions_fixture.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;

class RandomOrdersTest : public WithKernelExtensions<ServiceManagerFixture> {
 protected:
  // It has no health record, whose retry starts each service that is not ready, also one that a
  // user interface has stopped.
  RandomOrdersTest() { startConfigurationServer(); }

  struct Event {
    std::string name;
    std::function<void()> happens;
  };
  std::vector<Event> events() {
    std::vector<Event> events{
        {"installer begins",
         [this] { manager().shutdownServices({kAgent, kHelper}, [this](bool) { ++answers_; }); }},
        {"installer ends", [this] { manager().evaluateServices(); }},
        {"setting changes", [this] { manager().handleGlobalSettingsDidChange({}); }},
        {"server starts", [this] { manager().handleGlobalSettingsServerDidStart({}); }},
        {"server ends", [this] { manager().handleGlobalSettingsServerWillShutdown({}); }},
        {"bus returns", [this] { manager().handleNotificationsReturn(); }},
        {"extension is missing", [this] { setMissing(true); }},
        {"extension is there", [this] { setMissing(false); }},
        {"host hangs", [this] { jobs_.setHung(true); }},
        {"host is gone", [this] { jobs_.setReachable(false); }},
        {"host returns", [this] { returnHost(); }},
        {"turn", [this] { loop_.runReady(); }},
        {"wait", [this] { loop_.advanceBy(700ms); }},
        {"long wait", [this] { loop_.advanceBy(7s); }}};
    for (const char* label : {kPrimary, kAgent, kHelper}) {
      const std::string of = std::string(" of ") + label;
      events.push_back({"stop" + of, [this, label] { manager().stopServices({label}); }});
      events.push_back({"start" + of, [this, label] { manager().startServices({label}); }});
      events.push_back({"end" + of, [this, label] {
                          if (isRunning(label)) jobs_.endProcess(label);
                        }});
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

  int answers_ = 0;  // to the installer
};

TEST_F(RandomOrdersTest, EachServiceEndsAsItIsWanted) {
  const std::vector<Event> events = this->events();
  std::mt19937 random(1);  // The same orders in each run.
  for (int order = 0; order < 500; ++order) {
    std::string names;
    int begun = 0;
    answers_ = 0;
    for (int i = 0; i < 15; ++i) {
      const Event& event = events[random() % events.size()];
      names += (names.empty() ? "" : ", ") + event.name;
      if (event.name == events[0].name) ++begun;
      event.happens();
    }
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
    ASSERT_FALSE(manager().isEvaluating()) << names;
    ASSERT_EQ(answers_, begun) << names;
    std::size_t running = 0;
    for (const char* label : {kPrimary, kAgent, kHelper}) {
      const bool isStopped = manager().isServiceBeingTrackedForUserClientShutdownRequest(label);
      ASSERT_EQ(isRunning(label), !isStopped) << label << " after: " << names;
      ASSERT_EQ(manager().isServiceBeingTrackedForRespawn(label), !isStopped)
          << label << " after: " << names;
      if (!isStopped) ++running;
    }
    ASSERT_EQ(exitWatcher_.watchCount(), running) << names;
    takeLog();
  }
}

}  // namespace
