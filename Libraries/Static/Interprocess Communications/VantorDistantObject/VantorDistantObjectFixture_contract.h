#pragma once

#include <algorithm>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Libraries/Static/Interprocess Communications/VantorDistantObject/KLXConnectionAuthenticator.h"
#include "Libraries/Static/Interprocess Communications/VantorDistantObject/VantorDistantObject.h"
#include "Logger/Logger.h"
#include "Platform/Testing/Logging/FakeLogSink.h"
#include "Platform/Testing/NamedConnections/ConnectedProgram.h"
#include "Platform/Testing/Notifications/FakeNotificationBus.h"
#include "Platform/Testing/Peers/FakePeerTransport.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"
#include "Platform/Testing/SystemFacts/FakeSystemInformation.h"

// A centre that counts the observations that others keep.
class CountingCenter final : public platform::DistributedNotificationCenter {
 public:
  explicit CountingCenter(DistributedNotificationCenter& center) : center_(center) {}

  std::unique_ptr<Observation> addObserver(
      std::optional<std::string> name, std::optional<std::string> object, Handler handler,
      platform::NSNotificationSuspensionBehavior behavior) override {
    return std::make_unique<Counted>(count, center_.addObserver(std::move(name), std::move(object),
                                                                std::move(handler), behavior));
  }
  std::unique_ptr<Observation> observeReturn(std::function<void()> handler) override {
    return center_.observeReturn(std::move(handler));
  }
  void postNotificationName(std::string_view name, std::optional<std::string> object,
                            platform::Value userInfo,
                            platform::NSNotificationPosting posting) override {
    center_.postNotificationName(name, std::move(object), std::move(userInfo), posting);
  }

  int count = 0;

 private:
  struct Counted final : Observation {
    Counted(int& all, std::unique_ptr<Observation> kept) : count(all), inner(std::move(kept)) {
      ++count;
    }
    Counted(const Counted&) = delete;
    Counted& operator=(const Counted&) = delete;
    ~Counted() override { --count; }
    int& count;
    const std::unique_ptr<Observation> inner;
  };

  DistributedNotificationCenter& center_;
};

// A program with distant objects, and a server of the status protocol.
class VantorDistantObjectTest : public testing::Test {
 protected:
  static constexpr char kName[] = "com.vantor.server";
  static constexpr char kProtocolName[] = "StatusProtocol";
  static constexpr char kStarted[] = "com.vantor.server.didStart";
  static constexpr char kNoConnection[] =
      "Unable to establish a valid connection to the vended object";
  static constexpr char kNilProxy[] = "VantorNilProxyException";

  // Answers the protocol; `messages` holds the messages that reached it.
  struct Server final : platform::MessageReceiver {
    platform::MessageResult receiveMessage(std::string_view selector,
                                           const platform::Array& arguments) override {
      messages.emplace_back(selector);
      if (selector == "fail")
        return std::unexpected(platform::NSException{"ServerException", "because", {}});
      return selector == "isServerUp" ? platform::Value(true)
             : arguments.empty()      ? platform::Value()
                                      : arguments.front();
    }
    std::vector<std::string> messages;
  };

  VantorDistantObjectTest() {
    VantorDistantObject::gTimeoutInterval = 10.0;
    using platform::MethodDescription;
    protocols_.add(
        kProtocolName,
        platform::Protocol(
            kProtocolName,
            {{"isServerUp"}, {"echo:"}, {"fail"}, {"set:", MethodDescription::Kind::kOneWay}}));
  }

  VantorDistantObject::Environment environment() {
    return {loop_, program_.connections, *distributed_, program_.center, protocols_, system_};
  }
  std::unique_ptr<VantorDistantObject> make() {
    return std::make_unique<VantorDistantObject>(environment(), kName, kProtocolName, kStarted);
  }
  std::unique_ptr<VantorDistantObject> makeRetrying() {
    return std::make_unique<VantorDistantObject>(environment(), kName, kProtocolName, kStarted,
                                                 true);
  }

  void startServer() {
    vended_ = serverProgram_.connections.makeConnection();
    vended_->setDelegate(&authenticator_);
    vended_->setRootObject(
        std::make_shared<platform::NSProtocolChecker>(&server_, protocols_.find(kProtocolName)));
    ASSERT_TRUE(vended_->registerName(kName));
  }
  void stopServer() {
    vended_->invalidate();
    loop_.runReady();
  }
  void announceStart() {
    serverDistributed_->postNotificationName(kStarted, std::nullopt, {},
                                             platform::NSNotificationPosting::kPostToAllSessions);
    loop_.runReady();
  }

  // For how long `action` blocked.
  template <typename Action>
  platform::Duration timeOf(Action action) {
    const platform::Instant start = loop_.now();
    action();
    return loop_.now() - start;
  }
  static std::string recentName(const VantorDistantObject& object) {
    return object.recentException() ? object.recentException()->name : "none";
  }

  // The lines of logger 1 at that level since the last call, without the source's name and line.
  std::vector<std::string> lines(platform::AslLevel level) {
    std::vector<std::string> texts;
    for (const auto& message : sink_.messagesAtLevel(level)) {
      EXPECT_TRUE(message.text.starts_with("[VantorDistantObject")) << message.text;
      texts.push_back(message.text.substr(message.text.find(']') + 2));
    }
    return texts;
  }
  std::vector<std::string> errors() { return lines(platform::ASL_LEVEL_ERR); }
  std::vector<std::string> debugLines() { return lines(platform::ASL_LEVEL_DEBUG); }
  static std::string errorLine(std::string_view exception, int attempt) {
    return "An exception was encountered while messaging the server: " + std::string(exception) +
           ". Retrying: " + std::to_string(attempt) + " attempt(s)";
  }

  static std::string pathOf(std::string_view name) { return std::string(name); }

  platform::FakeLogSink sink_;
  platform::SystemLog log_{sink_, "program"};
  LoggerBinding binding_{log_};
  platform::FakeSystemInformation system_;
  platform::ProtocolTable protocols_;
  platform::VirtualRunLoop loop_;
  platform::FakeNotificationBus bus_{loop_};
  platform::FakePeerNetwork network_{loop_};
  platform::FakePeerTransport transport_{network_, {100, 0, 0}};
  platform::FakePeerTransport serverTransport_{network_, {200, 0, 0}};
  platform::ConnectedProgram program_{loop_, transport_, pathOf};
  platform::ConnectedProgram serverProgram_{loop_, serverTransport_, pathOf};
  std::unique_ptr<platform::DistributedNotificationCenter> distributed_ = bus_.makeCenter(log_);
  std::unique_ptr<platform::DistributedNotificationCenter> serverDistributed_ =
      bus_.makeCenter(log_);
  Server server_;
  KLXConnectionAuthenticator authenticator_{system_};
  std::shared_ptr<platform::NSConnection> vended_;
};
