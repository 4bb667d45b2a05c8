// A client that shares no code with the product: it speaks what docs/wire.md says.

#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Tests/EndToEnd/ChildProgram.h"
#include "Tests/EndToEnd/DemoRoot.h"
#include "Tests/EndToEnd/ExitStatuses.h"

namespace platform {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

class ForeignClient : public testing::Test {
 protected:
  ChildProgram start(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), {WIRE_CLIENT, root_.path()});
    return ChildProgram(std::move(arguments), {"PATH=/usr/bin:/bin"});
  }
  // The output of a client that has succeeded.
  std::string outputOf(std::vector<std::string> arguments) const {
    ChildProgram client = start(std::move(arguments));
    EXPECT_EQ(client.waitForExit(), kSuccess);
    EXPECT_EQ(client.errors(), "");
    return client.restOfOutput();
  }

  const DemoRoot root_;
};

TEST_F(ForeignClient, ReadsServicesAndSettings) {
  const std::string agent = "com.vantor.demo.agent";
  EXPECT_THAT(outputOf({"services"}),
              HasSubstr(agent + " " + std::to_string(root_.processOf(agent)) + "\n"));
  const auto set = root_.control({"settings", "set", "common", "Greeting", "hello"});
  EXPECT_EQ(set.status, kSuccess) << set.errors;
  EXPECT_EQ(outputOf({"get", "com.vantor.CommonPreferences", "Greeting"}), "'hello'\n");
  EXPECT_EQ(outputOf({"get", "com.vantor.CommonPreferences", "NoSuchKey"}), "None\n");
}

TEST_F(ForeignClient, CallsAnEndpointOfAService) {
  EXPECT_THAT(outputOf({"call", "com.vantor.demo.agent.endpoint", "greetWithReply:"}),
              StartsWith("Hello from com.vantor.demo.agent.endpoint"));
}

TEST_F(ForeignClient, ObservesANotification) {
  ChildProgram client = start({"observe", "KLXGlobalSettingsDidChangeNotification"});
  EXPECT_EQ(client.nextLine(), "observing");
  root_.control({"settings", "set", "common", "Greeting", "hello"});
  EXPECT_EQ(client.nextLine(),
            "KLXGlobalSettingsDidChangeNotification ['com.vantor.CommonPreferences'] "
            "{'KLXGlobalSettingsKeyModified': 'Greeting'}");
  EXPECT_EQ(client.waitForExit(), kSuccess);
}

TEST_F(ForeignClient, IsRefusedWithAWrongToken) {
  ChildProgram client = start({"services", "--token", std::string(32, '0')});
  EXPECT_EQ(client.waitForExit(), exited(1));
  EXPECT_THAT(client.errors(),
              StartsWith("refused: com.vantor.exception.NSFailedAuthenticationException"));
}

}  // namespace
}  // namespace platform
