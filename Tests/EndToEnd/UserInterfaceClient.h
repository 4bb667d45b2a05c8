#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Messages/Protocol.h"
#include "Platform/NamedConnections/NSConnection.h"
#include "Platform/NamedConnections/NamedConnections.h"
#include "Platform/Notifications/NotificationCenter.h"
#include "Tests/EndToEnd/DaemonRoot.h"

namespace platform {

// A client of the daemon like the product's user interface: it asks questions, and gets
// notifications of the services. The root's loop serves it.
class UserInterfaceClient final : public MessageReceiver {
 public:
  struct Notice {
    std::string label;
    std::int64_t status = -1;
    std::int64_t process = 0;  // 0 if there is none
    bool operator==(const Notice&) const = default;
  };

  static constexpr char kServer[] = "com.vantor.servicemanager.userinterface.server";
  static constexpr char kInstallerServer[] = "com.vantor.servicemanager.installer.server";
  static constexpr char kAuthServer[] = "com.vantor.common.servicemanager.auth";
  static constexpr char kOperatorServer[] = "com.vantor.servicemanager.operator.server";

  // Connects. Without a loop of its own it is served by the root's loop.
  explicit UserInterfaceClient(DaemonRoot& root, std::string_view server = kServer);
  UserInterfaceClient(DaemonRoot& root, AsioRunLoop& loop, std::string_view server = kServer);
  ~UserInterfaceClient() override;

  MessageResult ask(std::string_view selector, const Array& arguments = {});
  // Subscribes to notifications; returns when the daemon has registered it.
  void registerClient();

  bool isConnected() const { return connection_ && connection_->isValid(); }
  const std::vector<Notice>& notices() const { return notices_; }
  void forgetNotices() { notices_.clear(); }
  // Whether it has got this notification of the service.
  bool hasNotice(std::string_view label, std::int64_t status) const;

  // Called within each notification.
  std::function<void(const Notice&)> onNotice;

  MessageResult receiveMessage(std::string_view selector, const Array& arguments) override;

 private:
  class Delegate;

  DaemonRoot& root_;
  DBusPeerTransport transport_;
  FakeLogSink sink_;
  SystemLog log_{sink_, "test"};
  NotificationCenter center_;
  NotificationCenter::Observation death_;
  NamedConnections connections_;
  ProtocolTable protocols_;
  std::unique_ptr<NSConnectionDelegate> delegate_;
  std::shared_ptr<NSProtocolChecker> self_;
  std::shared_ptr<NSConnection> connection_;
  std::shared_ptr<NSDistantObject> proxy_;
  std::vector<Notice> notices_;
};

// Waits until the daemon is no longer busy with any of these services.
void awaitServices(DaemonRoot& root, const std::vector<std::string>& labels);

}  // namespace platform
