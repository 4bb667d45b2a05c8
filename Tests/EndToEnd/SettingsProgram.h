#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Global Settings/GlobalSettingsClient/KLXGlobalSettingsClient.h"
#include "Global Settings/GlobalSettingsClient/KLXGlobalSettingsProtocol.h"
#include "Platform/Linux/NamedConnections/ConnectionsFolder.h"
#include "Platform/NamedConnections/NamedConnections.h"
#include "Platform/Notifications/NotificationCenter.h"
#include "Tests/EndToEnd/DaemonRoot.h"

namespace platform {

// The test as a program of the product that changes settings of the domain "common". The root's
// loop serves it.
class SettingsProgram {
 public:
  explicit SettingsProgram(DaemonRoot& root)
      : root_(root),
        connections_(
            root.loop(), root.transport(), center_, log_,
            [&root](std::string_view name) { return pathOfConnection(root.path(), name); }),
        started_(root.center().addObserver("com.vantor.CommonPreferences.didStart", std::nullopt,
                                           [this](const DistributedNotification&) {
                                             ++starts_;
                                             root_.changed();
                                           })) {
    addGlobalSettingsProtocol(protocols_);
    client_ = KLXGlobalSettingsClient::commonSettingsClientWithDelegate(
        {root.loop(), connections_, root.center(), center_, protocols_, root.system()}, nullptr);
  }

  KLXGlobalSettingsClient& client() { return *client_; }
  void set(std::string_view key, const Value& value) {
    client_->sendMessage("setObject:forKey:sender:", {value, key, "test"});
  }
  // How often the server has announced its start.
  int starts() const { return starts_; }

 private:
  DaemonRoot& root_;
  FakeLogSink sink_;
  SystemLog log_{sink_, "test"};
  NotificationCenter center_;
  ProtocolTable protocols_;
  NamedConnections connections_;
  std::unique_ptr<DistributedNotificationCenter::Observation> started_;
  int starts_ = 0;
  KLXGlobalSettingsClient::Made client_;
};

}  // namespace platform
