#include "ServiceManager/ServiceManager/ServiceManager_fixture.h"

namespace {

using namespace platform;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// Messages as the protocol checkers let them through.
class MessagesTest : public ServiceManagerFixture {
 protected:
  MessagesTest() {
    use(catalogue());
    manager().evaluateSystemConfiguration();
  }

  Value send(const char* selector, Array arguments = {}) {
    const MessageResult result = manager().receiveMessage(selector, arguments);
    EXPECT_TRUE(result) << result.error().reason;
    return result.value_or(Value());
  }
  void expectRaised(const char* selector, Value argument, const char* reason) {
    const MessageResult result = manager().receiveMessage(selector, {std::move(argument)});
    ASSERT_FALSE(result) << selector;
    EXPECT_EQ(result.error().name, kNSInvalidArgumentException);
    EXPECT_THAT(result.error().reason, HasSubstr(reason));
  }
};

TEST_F(MessagesTest, TheQueriesAnswerByTheirSelectors) {
  EXPECT_EQ(send("services"), manager().services());
  EXPECT_EQ(send("pidForService:", {kAgent}), Value(process(kAgent)));
  EXPECT_TRUE(send("pidForService:", {Value()}).isNil());
  EXPECT_TRUE(send("lastExitStatusForService:", {kAgent}).isNil());
  jobs_.endProcess(kAgent, {ExitStatus::Kind::kSignalled, 9});
  EXPECT_EQ(send("lastExitStatusForService:", {kAgent}), Value(9));
}

TEST_F(MessagesTest, TheRequestsDoWhatTheirSelectorsSay) {
  EXPECT_TRUE(send("stopServices:", {Array{kAgent}}).isNil());
  EXPECT_FALSE(isRunning(kAgent));
  loop_.runReady();
  EXPECT_TRUE(send("startServices:", {Array{kAgent}}).isNil());
  EXPECT_TRUE(isRunning(kAgent));
  EXPECT_EQ(send("shutdownServices:", {Array{kHelper}}), Value(true));
  EXPECT_FALSE(isRunning(kHelper));
  EXPECT_EQ(send("evaluateServices"), Value(true));
  const auto client = std::make_shared<FakeUserClient>();
  EXPECT_TRUE(
      send("registerClient:", {Value(std::shared_ptr<const RemoteObject>(client))}).isNil());
  EXPECT_THAT(manager().userClients(), ElementsAre(client));
  EXPECT_TRUE(send("registerClient:", {Value()}).isNil());
  EXPECT_EQ(manager().userClients().size(), 1u);
}

TEST_F(MessagesTest, AnArgumentOfTheWrongKindRaises) {
  for (const char* selector : {"pidForService:", "lastExitStatusForService:"}) {
    expectRaised(selector, 5, "expected a label, got NSNumber");
    expectRaised(selector, Array{kAgent}, "expected a label, got NSArray");
  }
  for (const char* selector : {"stopServices:", "startServices:", "shutdownServices:"}) {
    expectRaised(selector, kAgent, "expected an array of labels, got NSString");
    expectRaised(selector, Value(), "expected an array of labels, got nil");
  }
  expectRaised("registerClient:", kAgent, "expected a proxy, got NSString");
  EXPECT_EQ(manager().operatingMode(), ORBOperatingModeNormal);
}

TEST_F(MessagesTest, AnUnknownSelectorRaises) {
  const MessageResult result = manager().receiveMessage("release", {});
  ASSERT_FALSE(result);
  EXPECT_EQ(result.error().name, kNSInvalidArgumentException);
}

}  // namespace
