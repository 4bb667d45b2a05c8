#include "Tests/EndToEnd/CrudeClient.h"

#include <chrono>
#include <utility>

#include <gtest/gtest.h>

#include "Libraries/Static/Interprocess Communications/utilities/ProfileData.h"
#include "Platform/Linux/NamedConnections/ConnectionsFolder.h"

namespace platform {

using namespace std::chrono_literals;

CrudeClient::CrudeClient(DaemonRoot& root, std::string_view server) : root_(root) {
  auto peer = root.transport().connect(pathOfConnection(root.path(), server), {.timeout = 60s});
  if (!peer) {
    ADD_FAILURE() << describe(peer.error().error);
    std::abort();
  }
  peer_ = std::move(*peer);
  peer_->setHandlers({.message =
                          [this](PeerMessage message) {
                            if (!answer_) {
                              peer_->close();
                              hasEnded_ = true;
                            } else if (message.reply) {
                              (void)message.reply->answer(*answer_);
                            }
                            root_.changed();
                          },
                      .death =
                          [this](const Error&) {
                            hasEnded_ = true;
                            root_.changed();
                          }});
}

MessageResult CrudeClient::showToken(const Data& token) {
  return peer_->call(kAuthenticate, {Value(token)}, 60s);
}

void CrudeClient::authenticate() {
  EXPECT_EQ(showToken(systemProfileData(root_.system())),
            MessageResult(Value(clientProfileData(root_.system()))));
}

void CrudeClient::registerClient(const Array& protocols) {
  const Value object =
      Dictionary{{"Number", 1}, {"Class", "NSObject"}, {"Protocols", Value(protocols)}};
  EXPECT_EQ(peer_->call("registerClient:", {Dictionary{{"NSDistantObject", object}}}, 60s),
            MessageResult(Value()));
}

void CrudeClient::answerWith(std::optional<MessageResult> answer) { answer_ = std::move(answer); }

}  // namespace platform
