// Each failure of the start is told from the others by its line in the source.

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "ServiceManager/ServiceManager/StartUp_fixture.h"

namespace {

using namespace platform;

class StartUpLinesTest : public StartUpFixture {
 protected:
  // The "[FILE:LINE]" of the last error that a start logs after `damage`. The cause may precede it.
  std::string lineOfFailure(const std::function<void()>& damage) {
    damage();
    start();
    queues_.runPending();
    std::vector<std::string> lines;
    for (const auto& message : logSink_.take()) {
      if (message.level != ASL_LEVEL_ERR) continue;
      lines.push_back(message.text.substr(0, message.text.find(']')));
    }
    EXPECT_FALSE(lines.empty());
    manager_.reset();
    return lines.empty() ? std::string() : lines.back();
  }
};

TEST_F(StartUpLinesTest, EachFailureNamesItsOwnLine) {
  const Dictionary sound = catalogue();
  const std::vector<std::function<void()>> failures{
      // The last step first: each failure leaves the steps after it as they are.
      [&] {
        Dictionary foreign = entry("configd");
        foreign.set("Products", Array{"another"});
        install(catalogue({{kPrimary, foreign}}));
      },
      [this] { files_.addPropertyList(kProductFile, Dictionary{{"GUID", "unknown"}}); },
      [this] { files_.remove(kProductFile); },
      [this] { files_.remove(kCatalogueFile); },
      [this] {
        signatures_.addRefused("/Daemon.bundle", SecStaticCode::Kind::kBundle,
                               {errSecCSBadResource, "changed"});
      },
      [this] { jobs_.setCallerAllowed(false); },
      [this] { random_.limitTo(7); }};
  std::set<std::string> lines;
  for (const auto& damage : failures) lines.insert(lineOfFailure(damage));
  EXPECT_EQ(lines.size(), failures.size()) << testing::PrintToString(lines);
}

}  // namespace
