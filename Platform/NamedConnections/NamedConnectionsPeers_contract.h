#pragma once

// Contract for foreign and for hostile peers.

#include "Platform/Logging/UserLines.h"
#include "Platform/NamedConnections/NamedConnectionsFixture_contract.h"
#include "Platform/NamedConnections/RemoteReferences.h"

namespace platform {

class NamedConnectionsPeersContract : public NamedConnectionsContract {
 protected:
  static constexpr char kAuthenticate[] = "NSConnectionAuthenticate:";

  ~NamedConnectionsPeersContract() override {
    intruders_.clear();
    there([this](ConnectedProgram&) {
      clients_.clear();
      listener_.reset();
    });
  }

  static Value token(std::string_view text) { return Data(text.begin(), text.end()); }

  // A client that sends arbitrary messages to the server.
  PeerConnection& intrude() {
    auto connection = here().transport.connect(harness_->path("server"), {});
    EXPECT_TRUE(connection);
    intruders_.push_back(std::move(*connection));
    return *intruders_.back();
  }
  PeerConnection& intrudeWithToken() {
    PeerConnection& intruder = intrude();
    EXPECT_EQ(intruder.call(kAuthenticate, {token("client")}, 60s), MessageResult(token("server")));
    return intruder;
  }
  std::string callOf(PeerConnection& intruder, std::string_view selector, const Array& arguments) {
    return exceptionOf(intruder.call(selector, arguments, 60s));
  }

  // The other program has the name, and `onMessage` handles its clients.
  using OnMessage = std::function<void(PeerConnection&, PeerMessage)>;
  void vendImpostor(OnMessage onMessage) {
    there([&](ConnectedProgram& there) {
      PeerListenerOptions options;
      options.whileWaiting = WhileWaiting::kServe;
      auto listener = there.transport.listen(
          harness_->path("server"), options,
          [this, onMessage](std::unique_ptr<PeerConnection> client) {
            PeerConnection* connection = client.get();
            connection->admit();
            connection->setHandlers({[connection, onMessage](PeerMessage message) {
                                       onMessage(*connection, std::move(message));
                                     },
                                     {}});
            clients_.push_back(std::move(client));
          });
      ASSERT_TRUE(listener);
      listener_ = std::move(*listener);
    });
  }

  std::string failureOfRootProxy() {
    const auto root = client_->rootProxy();
    return root ? "no exception" : root.error().name;
  }

  std::vector<std::unique_ptr<PeerConnection>> intruders_;
  std::unique_ptr<PeerListener> listener_;                // there
  std::vector<std::unique_ptr<PeerConnection>> clients_;  // there
};

TEST_P(NamedConnectionsPeersContract, APeerWithoutAuthenticationReachesNoObject) {
  start();
  PeerConnection& intruder = intrude();
  EXPECT_EQ(callOf(intruder, "echo:", {Value("secret")}), kNSFailedAuthenticationException);
  EXPECT_EQ(callOf(intruder, "echo:", {Value("secret")}), kNSInvalidSendPortException);
  EXPECT_TRUE(intrude().send("note:", {Value("noted")}));
  runUntil([this] { return linesThere("its first message was not its authentication") == 2; });
  EXPECT_EQ(journal_.count("noted"), 0u);
  EXPECT_EQ(children(), 1u);
  EXPECT_TRUE(send("nothing"));
}

TEST_P(NamedConnectionsPeersContract, APeerWithAWrongTokenIsRefused) {
  start();
  for (const Value& wrong : {token("clienT"), token("server"), token(""), Value("client"), Value()})
    EXPECT_EQ(callOf(intrude(), kAuthenticate, {wrong}), kNSFailedAuthenticationException);
  EXPECT_TRUE(intrude().send(kAuthenticate, {token("client")}));
  runUntil([this] { return linesThere("Ended a connection of \"server\" with process ") == 6; });
  EXPECT_EQ(children(), 1u);
  EXPECT_TRUE(send("nothing"));
}

TEST_P(NamedConnectionsPeersContract, AClientWithAWrongTokenLearnsWhy) {
  vend();
  delegate_.setShown("wrong");
  client_ = lookUp();
  noteDeaths();
  EXPECT_EQ(failureOfRootProxy(), kNSFailedAuthenticationException);
  EXPECT_FALSE(client_->isValid());
  EXPECT_EQ(journal_.count("death"), 1u);
}

TEST_P(NamedConnectionsPeersContract, AServerWithAWrongTokenIsRefused) {
  vend();
  there([this](ConnectedProgram&) { server_.delegate.setShown("wrong"); });
  client_ = lookUp();
  EXPECT_EQ(failureOfRootProxy(), kNSFailedAuthenticationException);
  EXPECT_FALSE(client_->isValid());
  EXPECT_EQ(here().sink.count("the server did not authenticate itself"), 1u);
}

TEST_P(NamedConnectionsPeersContract, OnlyTheFirstMessageAuthenticates) {
  start();
  EXPECT_EQ(callOf(intrudeWithToken(), kAuthenticate, {token("client")}),
            kNSInvalidArgumentException);
  runUntil([this] { return children() == 1; });
  EXPECT_EQ(linesThere("it authenticated itself twice"), 1u);
  EXPECT_TRUE(send("nothing"));
}

TEST_P(NamedConnectionsPeersContract, WithoutADelegateNoPeerIsTrusted) {
  vend();
  client_ = lookUp();
  client_->setDelegate(nullptr);
  EXPECT_EQ(failureOfRootProxy(), kNSFailedAuthenticationException);
  there([this](ConnectedProgram&) { server_.connection->setDelegate(nullptr); });
  EXPECT_EQ(lookUp(), nullptr);
  EXPECT_EQ(linesThere("this server has no delegate"), 1u);
}

TEST_P(NamedConnectionsPeersContract, ADelegateCanRefuseNewConnections) {
  vend();
  there([this](ConnectedProgram&) { server_.delegate.refuseNewConnections(); });
  EXPECT_EQ(lookUp(), nullptr);
  EXPECT_EQ(here().sink.count("No connection with \"server\": "), 1u);
  EXPECT_EQ(children(), 0u);
}

TEST_P(NamedConnectionsPeersContract, AServerThatSendsFirstIsRefused) {
  vendImpostor([](PeerConnection& connection, const PeerMessage&) {
    EXPECT_TRUE(connection.send("note:", {Value("first")}));
  });
  client_ = lookUp();
  EXPECT_EQ(failureOfRootProxy(), kNSInvalidSendPortException);
  EXPECT_EQ(here().sink.count("it spoke before it had authenticated itself"), 1u);
}

TEST_P(NamedConnectionsPeersContract, AHungServerCostsOneTimeoutUntilItAnnouncesItself) {
  vendImpostor([](PeerConnection&, const PeerMessage&) {});
  client_ = lookUp();
  client_->setRequestTimeout(20ms);
  EXPECT_EQ(failureOfRootProxy(), kNSPortTimeoutException);
  EXPECT_FALSE(client_->isValid());
  EXPECT_EQ(lookUp(), nullptr);
  here().connections.serverDidStart("server");
  EXPECT_NE(lookUp(), nullptr);
}

TEST_P(NamedConnectionsPeersContract, AMalformedReferenceEndsTheConnection) {
  start();
  const auto reference = [](Value number, Value name, Value protocols) {
    return Value(Dictionary{{"NSDistantObject", Dictionary{{"Number", std::move(number)},
                                                           {"Class", std::move(name)},
                                                           {"Protocols", std::move(protocols)}}}});
  };
  const Value names = Array{"P"};
  const Array wrong = {
      Dictionary{{"NSDistantObject", 1}},
      Dictionary{{"NSDistantObject", Dictionary{}}},
      Dictionary{{"NSDistantObject", Dictionary{{"Value", 1}}}},
      Dictionary{{"NSDistantObject", Dictionary{{"Number", 1}, {"Class", "C"}}}},
      reference(0, "C", names),
      reference(-1, "C", names),
      reference("1", "C", names),
      reference(1, "", names),
      reference(1, std::string(RemoteReferences::kMaxNameSize + 1, 'c'), names),
      reference(1, "C", "P"),
      reference(1, "C", Array{1}),
      reference(1, "C", Array(RemoteReferences::kMaxProtocols + 1, Value("P"))),
  };
  for (const Value& value : wrong) {
    EXPECT_EQ(callOf(intrudeWithToken(), "keep:", {value}), kNSInvalidArgumentException);
    EXPECT_EQ(callOf(*intruders_.back(), "nothing", {}), kNSInvalidSendPortException);
  }
  EXPECT_EQ(callOf(intrudeWithToken(), "keep:",
                   {reference(1, std::string(RemoteReferences::kMaxNameSize, 'c'),
                              Array(RemoteReferences::kMaxProtocols, Value("P")))}),
            "no exception");
  EXPECT_TRUE(send("nothing"));
}

TEST_P(NamedConnectionsPeersContract, TooManyReferencesEndTheConnection) {
  start();
  PeerConnection& intruder = intrudeWithToken();
  const auto pass = [&](std::int64_t number) {
    return callOf(
        intruder, "hoard:",
        {Dictionary{{"NSDistantObject",
                     Dictionary{{"Number", number}, {"Class", "C"}, {"Protocols", Array{}}}}}});
  };
  const auto limit = static_cast<std::int64_t>(RemoteReferences::kMaxReferences);
  for (std::int64_t number = 1; number <= limit; ++number) ASSERT_EQ(pass(number), "no exception");
  EXPECT_EQ(pass(1), "no exception");  // It is known already.
  EXPECT_EQ(pass(limit + 1), kNSInvalidArgumentException);
  runUntil([this] { return children() == 1; });
  EXPECT_TRUE(send("nothing"));
}

TEST_P(NamedConnectionsPeersContract, OnlyAMalformedObjectNumberEndsTheConnection) {
  start();
  PeerConnection& intruder = intrudeWithToken();
  for (const std::int64_t number : {-1, 0, 1, 1000})
    EXPECT_EQ(callOf(intruder, "NSDistantObject:echo:", {number, 1}), kNSInvalidSendPortException);
  EXPECT_EQ(callOf(intruder, "nothing", {}), "no exception");
  EXPECT_EQ(callOf(intruder, "NSDistantObject:echo:", {"1", 1}), kNSInvalidArgumentException);
  EXPECT_EQ(callOf(intruder, "nothing", {}), kNSInvalidSendPortException);
}

TEST_P(NamedConnectionsPeersContract, AFloodOfRefusedPeersIsNoFloodOfLines) {
  vend();
  for (std::size_t peer = 0; peer < UserLines::kLinesPerUser + 5; ++peer)
    EXPECT_EQ(callOf(intrude(), "echo:", {Value(1)}), kNSFailedAuthenticationException);
  EXPECT_EQ(linesThere("its first message was not"), UserLines::kLinesPerUser);
  there([](ConnectedProgram& there) {
    EXPECT_FALSE(there.connections.makeConnection()->registerName("server"));
  });
  EXPECT_EQ(linesThere("The name \"server\" was not registered: "), 1u);
}

TEST_P(NamedConnectionsPeersContract, TheDepthOfNestedRequestsIsLimited) {
  // Each of our requests is met by one to our object, which calls the server again.
  vendImpostor([](PeerConnection& connection, const PeerMessage& message) {
    if (message.selector == kAuthenticate) {
      EXPECT_TRUE(message.reply->answer(token("server")));
      return;
    }
    auto result = connection.call("NSDistantObject:called:", {1, "again"}, 60s);
    EXPECT_TRUE(message.reply->answer(std::move(result)));
  });
  connect();
  struct Asking final : MessageReceiver {
    MessageResult receiveMessage(std::string_view, const Array&) override {
      ++requests;
      return root->sendMessage("nothing", {});
    }
    std::shared_ptr<NSDistantObject> root;
    std::size_t requests = 0;
  } asking;
  asking.root = root_;
  const auto object = std::make_shared<NSProtocolChecker>(&asking, &kCallbackProtocol);
  const MessageResult result = send("keep:", {Value(object)});
  ASSERT_FALSE(result);
  EXPECT_EQ(result.error().reason, "too many requests inside one another");
  EXPECT_EQ(asking.requests, NSConnection::kMaxNestedRequests);
}

}  // namespace platform
