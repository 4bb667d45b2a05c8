#include "Tests/EndToEnd/UserInterfaceClient.h"

#include <algorithm>

#include <gtest/gtest.h>

#include "Libraries/Static/Interprocess Communications/utilities/ProfileData.h"
#include "Platform/Linux/NamedConnections/ConnectionsFolder.h"
#include "Platform/Testing/NamedConnections/ConnectedProgram.h"
#include "ServiceManager/ServiceManager/Protocols.h"

namespace platform {
namespace {

std::string textOf(const Data& data) { return std::string(data.begin(), data.end()); }

}  // namespace

UserInterfaceClient::UserInterfaceClient(DaemonRoot& root, std::string_view server)
    : UserInterfaceClient(root, root.loop(), server) {}

UserInterfaceClient::UserInterfaceClient(DaemonRoot& root, AsioRunLoop& loop,
                                         std::string_view server)
    : root_(root),
      transport_(loop),
      death_(center_.addObserver(kNSConnectionDidDieNotification, nullptr,
                                 [this](const Notification&) { root_.changed(); })),
      connections_(loop, transport_, center_, log_,
                   [&root](std::string_view name) { return pathOfConnection(root.path(), name); }),
      delegate_(std::make_unique<TokenDelegate>(textOf(systemProfileData(root.system())),
                                                textOf(clientProfileData(root.system())))) {
  addServiceManagerProtocols(protocols_);
  self_ = std::make_shared<NSProtocolChecker>(
      this, protocols_.find(kORBServiceManagerUserInterfaceDelegateProtocol));
  connection_ = connections_.connectionWithRegisteredName(server);
  if (!connection_) {
    ADD_FAILURE() << server << " is not there";
    return;
  }
  connection_->setDelegate(delegate_.get());
  connection_->setReplyTimeout(std::chrono::seconds(60));
  auto proxy = connection_->rootProxy();
  if (!proxy) {
    ADD_FAILURE() << proxy.error().name << ": " << proxy.error().reason;
    return;
  }
  proxy_ = std::move(*proxy);
}

UserInterfaceClient::~UserInterfaceClient() {
  if (connection_) connection_->invalidate();
}

MessageResult UserInterfaceClient::ask(std::string_view selector, const Array& arguments) {
  if (!proxy_) return std::unexpected(NSException{kNSInvalidSendPortException, "", {}});
  return proxy_->sendMessage(selector, arguments);
}

void UserInterfaceClient::registerClient() {
  const auto taken = ask("registerClient:", {Value(std::shared_ptr<const NSProxy>(self_))});
  EXPECT_TRUE(taken) << taken.error().reason;
}

bool UserInterfaceClient::hasNotice(std::string_view label, std::int64_t status) const {
  return std::ranges::any_of(notices_, [&](const Notice& notice) {
    return notice.label == label && notice.status == status;
  });
}

MessageResult UserInterfaceClient::receiveMessage(std::string_view /*selector*/,
                                                  const Array& arguments) {
  const Value& info = arguments.at(0);
  Notice notice;
  if (const std::string* label = info["Label"].string()) notice.label = *label;
  notice.status = info["status"].integer().value_or(-1);
  notice.process = info["PID"].integer().value_or(0);
  EXPECT_EQ(info["PID"].isNil(), notice.status != 1);
  notices_.push_back(notice);
  if (onNotice) onNotice(notice);
  root_.changed();
  return Value();
}

void awaitServices(DaemonRoot& root, const std::vector<std::string>& labels) {
  const auto settled = UserInterfaceClient(root, UserInterfaceClient::kOperatorServer)
                           .ask("awaitServices:", {Value(Array(labels.begin(), labels.end()))});
  EXPECT_EQ(settled.value_or(Value()), Value(true));
}

}  // namespace platform
