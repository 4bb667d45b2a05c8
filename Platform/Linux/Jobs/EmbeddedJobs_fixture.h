#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/Linux/Jobs/EmbeddedAuthorization.h"
#include "Platform/Linux/Jobs/EmbeddedJobs.h"
#include "Platform/Linux/Jobs/JobHostClient.h"
#include "Platform/Linux/Jobs/JobHostMessages.h"
#include "Platform/Testing/Peers/FakePeerTransport.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"

namespace platform {

// A job host that answers as the test says.
class ScriptedHost {
 public:
  static constexpr char kSocket[] = "/run/vantor/launchd";

  using Answer = std::function<void(PeerMessage)>;

  ScriptedHost(FakePeerNetwork& network, Answer answer)
      : transport_(network, PeerCredentials{1, 0, 0}), answer_(std::move(answer)) {
    auto listener = transport_.listen(kSocket, {}, [this](std::unique_ptr<PeerConnection> peer) {
      ++connections;
      peer->admit();
      peer->setHandlers({.message =
                             [this](PeerMessage message) {
                               asked.push_back(message.selector);
                               answer_(std::move(message));
                             },
                         .death = {}});
      peers_.push_back(std::move(peer));
    });
    EXPECT_TRUE(listener);
    if (listener) listener_ = *std::move(listener);
  }

  void die() { transport_.die(); }
  void hang() { transport_.hang(); }
  void goOn() { transport_.goOn(); }

  std::vector<std::string> asked;
  int connections = 0;

 private:
  FakePeerTransport transport_;
  Answer answer_;
  std::unique_ptr<PeerListener> listener_;
  std::vector<std::unique_ptr<PeerConnection>> peers_;
};

class EmbeddedJobsTest : public testing::Test {
 protected:
  static constexpr const char* kSocket = ScriptedHost::kSocket;
  static constexpr char kLabel[] = "com.example.agent";

  static ScriptedHost::Answer answering(Value value) {
    return [value = std::move(value)](const PeerMessage& message) {
      EXPECT_TRUE(message.reply->answer(value));
    };
  }
  static ScriptedHost::Answer failing(LaunchdError code, std::string text) {
    return answering(
        failureAnswer({kCFErrorDomainLaunchd, static_cast<int>(code), std::move(text)}));
  }
  // Keeps the requests without an answer.
  ScriptedHost::Answer keeping() {
    return [this](PeerMessage message) { kept_.push_back(std::move(message)); };
  }

  void startHost(ScriptedHost::Answer answer) {
    kept_.clear();  // They belong to the old host.
    host_ = std::make_unique<ScriptedHost>(network_, std::move(answer));
  }

  auto submit() { return jobs_.SMJobSubmit(kSMDomainSystemLaunchd, job_, nullptr); }
  auto remove(bool wait = true) {
    return jobs_.SMJobRemove(kSMDomainSystemLaunchd, kLabel, nullptr, wait);
  }

  template <typename T>
  static void expectError(const std::expected<T, NSError>& result, LaunchdError code,
                          const std::string& text) {
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().domain, kCFErrorDomainLaunchd);
    EXPECT_EQ(result.error().code, static_cast<int>(code));
    EXPECT_THAT(result.error().localizedDescription, testing::HasSubstr(text));
  }

  // How long a call blocks.
  template <typename Call>
  Duration timeOf(Call call) {
    const Instant before = loop_.now();
    call();
    return loop_.now() - before;
  }

  VirtualRunLoop loop_;
  FakePeerNetwork network_{loop_};
  FakePeerTransport transport_{network_, PeerCredentials{50, 0, 0}};
  JobHostClient client_{transport_, loop_, kSocket};
  EmbeddedJobs jobs_{client_};
  EmbeddedAuthorization authorization_{client_};
  std::unique_ptr<ScriptedHost> host_;
  std::vector<PeerMessage> kept_;
  const Value job_ = Dictionary{{"Label", kLabel}, {"Program", "/opt/agent"}};
};

}  // namespace platform
