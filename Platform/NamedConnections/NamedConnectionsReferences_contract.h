#pragma once

#include "Platform/NamedConnections/NamedConnectionsFixture_contract.h"
#include "Platform/NamedConnections/RemoteReferences.h"

namespace platform {

class NamedConnectionsReferencesContract : public NamedConnectionsContract {
 protected:
  TestCallback callback_{journal_};
  std::shared_ptr<const NSProtocolChecker> object_ =
      std::make_shared<NSProtocolChecker>(&callback_, &kCallbackProtocol);
};

TEST_P(NamedConnectionsReferencesContract, AnObjectCanBeCalledDuringItsRequest) {
  start();
  EXPECT_EQ(send("callBack:", {Value(object_)}), MessageResult(Value("answer")));
  EXPECT_EQ(journal_.entries(), Log{"called now"});
}

TEST_P(NamedConnectionsReferencesContract, AnObjectThatWasPassedIsCalledBackLater) {
  start();
  ASSERT_TRUE(send("keep:", {Value(object_)}));
  EXPECT_EQ(send("callKept:", {Value("later")}), MessageResult(Value("answer")));
  there([this](ConnectedProgram& there) {
    there.loop.post([this] {
      const auto result = server_.object.kept()->sendMessage("called:", {Value("by the loop")});
      journal_.note(result ? "answered" : result.error().name);
    });
  });
  runUntilNoted("answered");
  EXPECT_EQ(journal_.entries(), (Log{"called later", "called by the loop", "answered"}));
}

TEST_P(NamedConnectionsReferencesContract, AReferenceContainsItsProtocols) {
  start();
  EXPECT_EQ(send("conforms:", {Value(object_)}), MessageResult(Value(true)));
  const auto other = std::make_shared<NSProtocolChecker>(&callback_, &kServerProtocol);
  EXPECT_EQ(send("conforms:", {Value(other)}), MessageResult(Value(false)));
}

TEST_P(NamedConnectionsReferencesContract, TheSameObjectIsTheSameProxy) {
  start();
  ASSERT_TRUE(send("keep:", {Value(object_)}));
  EXPECT_EQ(send("isSame:", {Value(object_)}), MessageResult(Value(true)));
  const auto other = std::make_shared<NSProtocolChecker>(&callback_, &kCallbackProtocol);
  EXPECT_EQ(send("isSame:", {Value(other)}), MessageResult(Value(false)));
}

TEST_P(NamedConnectionsReferencesContract, AnExceptionOfTheCallersOwnObjectReachesTheServer) {
  start();
  ASSERT_TRUE(send("keep:", {Value(object_)}));
  there([this](ConnectedProgram& there) {
    there.loop.post([this] {
      const auto result = server_.object.kept()->sendMessage("raised", {});
      journal_.note(result ? "answered" : result.error().name);
    });
  });
  runUntilNoted("CallbackException");
}

TEST_P(NamedConnectionsReferencesContract, AnObjectAdmitsOnlyItsProtocol) {
  start();
  ASSERT_TRUE(send("keep:", {Value(object_)}));
  there([this](ConnectedProgram& there) {
    there.loop.post([this] {
      const auto result = server_.object.kept()->sendMessage("hidden:", {Value(1)});
      journal_.note(result ? "answered" : result.error().name);
    });
  });
  runUntilNoted(kNSInvalidArgumentException);
}

TEST_P(NamedConnectionsReferencesContract, AReferenceToADestroyedObjectRaises) {
  start();
  ASSERT_TRUE(send("keep:", {Value(object_)}));
  object_.reset();
  EXPECT_EQ(exceptionOf(send("callKept:", {Value("late")})), kNSInvalidSendPortException);
  EXPECT_TRUE(send("nothing"));
}

TEST_P(NamedConnectionsReferencesContract, AReferenceWhoseOwnerDiedRaises) {
  start();
  ASSERT_TRUE(send("keep:", {Value(object_)}));
  client_->invalidate();
  runUntil([this] { return children() == 0; });
  connect();
  EXPECT_EQ(exceptionOf(send("callKept:", {Value("late")})), kNSInvalidSendPortException);
  EXPECT_TRUE(journal_.entries().empty());
}

TEST_P(NamedConnectionsReferencesContract, AResultCanBeAReference) {
  vend();
  TestCallback callback(journal_);
  there([&](ConnectedProgram&) {
    server_.object.setObject(std::make_shared<NSProtocolChecker>(&callback, &kCallbackProtocol));
  });
  connect();
  const MessageResult result = send("serverObject");
  ASSERT_TRUE(result);
  const auto proxy = proxyIn(*result);
  ASSERT_TRUE(proxy);
  EXPECT_EQ(proxy->className(), "NSProtocolChecker");
  EXPECT_TRUE(proxy->conformsToProtocol("CallbackProtocol"));
  EXPECT_EQ(proxy->sendMessage("called:", {Value("there")}), MessageResult(Value("answer")));
  EXPECT_EQ(journal_.entries(), Log{"called there"});
  // An object of another program can't be passed on, and no object can be inside a collection.
  EXPECT_EQ(exceptionOf(send("echo:", {*result})), kNSInvalidArgumentException);
  EXPECT_EQ(exceptionOf(send("echo:", {Value(Array{Value(object_)})})),
            kNSInvalidArgumentException);
  there([&](ConnectedProgram&) { server_.object.setObject(nullptr); });
}

TEST_P(NamedConnectionsReferencesContract, ADictionaryThatLooksLikeAReferenceArrivesUnchanged) {
  start();
  const Value inner = Dictionary{{"Number", 1}, {"Class", "X"}, {"Protocols", Array{}}};
  for (const Value& value :
       {Value(Dictionary{{"NSDistantObject", inner}}),
        Value(Dictionary{{"NSDistantObject", Dictionary{{"Value", inner}}}}),
        Value(Dictionary{{"NSDistantObject", 1}, {"more", 2}}), Value(Dictionary{})}) {
    EXPECT_EQ(send("echo:", {value}), MessageResult(value));
  }
}

TEST_P(NamedConnectionsReferencesContract, OnlyAClientThatHangsLosesItsConnection) {
  start();
  noteDeaths();
  there([this](ConnectedProgram&) {
    server_.connection->childConnections().front()->setReplyTimeout(20ms);
  });
  ASSERT_TRUE(send("keep:", {Value(object_)}));
  harness_->thereWhileWeHang([this](ConnectedProgram&) {
    const auto result = server_.object.kept()->sendMessage("called:", {Value("in vain")});
    journal_.note(result ? "answered" : result.error().name);
    const auto again = server_.object.kept()->sendMessage("called:", {Value("in vain")});
    journal_.note(again ? "answered" : again.error().name);
  });
  EXPECT_EQ(journal_.entries(), (Log{kNSPortTimeoutException, kNSInvalidSendPortException}));
  EXPECT_EQ(linesThere("it did not answer in time"), 1u);
  runUntilNoted("death");
  connect();
  EXPECT_TRUE(send("nothing"));
}

TEST_P(NamedConnectionsReferencesContract, AClientThatCallsBackDuringACallTimesOut) {
  start();
  const auto other = root_;
  connect();
  struct Asking final : MessageReceiver {
    MessageResult receiveMessage(std::string_view, const Array&) override {
      return root->sendMessage("nothing", {});
    }
    std::shared_ptr<NSDistantObject> root;
  } asking;
  asking.root = root_;
  object_ = std::make_shared<NSProtocolChecker>(&asking, &kCallbackProtocol);
  ASSERT_TRUE(send("keep:", {Value(object_)}));
  client_->setReplyTimeout(200ms);
  there([this](ConnectedProgram& there) {
    server_.connection->childConnections().back()->setReplyTimeout(20ms);
    there.loop.post([this] {
      // The server serves nothing while it waits, so neither side gets an answer.
      const auto result = server_.object.kept()->sendMessage("called:", {Value("now")});
      journal_.note(result ? "answered" : "unanswered");
    });
  });
  runUntilNoted("unanswered");
  EXPECT_TRUE(other->sendMessage("nothing", {}));
}

TEST_P(NamedConnectionsReferencesContract, TheNumberOfHeldObjectsIsLimited) {
  start();
  std::vector<std::shared_ptr<const NSProtocolChecker>> objects;
  const auto pass = [&] {
    objects.push_back(std::make_shared<NSProtocolChecker>(&callback_, &kCallbackProtocol));
    return send("conforms:", {Value(objects.back())});
  };
  while (objects.size() < RemoteReferences::kMaxReferences) ASSERT_TRUE(pass());
  EXPECT_EQ(exceptionOf(pass()), kNSInvalidArgumentException);
  EXPECT_TRUE(send("conforms:", {Value(objects.front())}));
  objects.clear();  // Makes room.
  EXPECT_TRUE(pass());
}

}  // namespace platform
