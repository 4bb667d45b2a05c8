#pragma once

// The daemon with its catalogue and its product's information on disk, ready to be started.

#include <memory>
#include <string>
#include <vector>

#include "ServiceManager/ServiceManager/ServiceManager_fixture.h"

class StartUpFixture : public ServiceManagerFixture {
 protected:
  using DistributedNotification = platform::DistributedNotification;

  static constexpr char kDidStart[] = "com.vantor.servicemanager.notification.serverdidstart";
  static constexpr char kDidStartError[] =
      "com.vantor.servicemanager.notification.serverdidstartError";

  StartUpFixture() {
    install(catalogue());
    installProduct(kServerManagedGuid);
    for (const char* name : {kDidStart, kDidStartError}) {
      observations_.push_back(otherCenter_->addObserver(
          name, std::nullopt, [this](const DistributedNotification& notification) {
            announcements_.push_back(notification);
          }));
    }
  }

  void start() { launch(); }

  std::vector<DistributedNotification> announcements_;
  std::vector<std::unique_ptr<platform::DistributedNotificationCenter::Observation>> observations_;
};
