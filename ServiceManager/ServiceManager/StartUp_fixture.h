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
  static constexpr char kCatalogueFile[] = "/Daemon.bundle/Contents/Resources/Service.plist";
  static constexpr char kProductFile[] = "/opt/app/product.plist";
  static constexpr char kServerManagedGuid[] = "5B13D7E2-8C40-4D9F-A27B-6E08F4C1B952";

  StartUpFixture() {
    install(catalogue());
    installProduct(kServerManagedGuid);
    for (const char* name : {kDidStart, kDidStartError}) {
      observations_.push_back(otherCenter_->addObserver(
          name, std::nullopt,
          [this](const DistributedNotification& notification) { heard_.push_back(notification); }));
    }
  }

  void install(const Dictionary& catalogue) {
    files_.addPropertyList(kCatalogueFile, catalogue);
    for (const auto& [label, service] : *catalogue["Services"].dictionary()) {
      if (const std::string* program = service["JobSpec"]["Program"].string()) addProgram(*program);
    }
  }
  void installProduct(const char* guid) {
    files_.addPropertyList(kProductFile, Dictionary{{"GUID", guid}});
  }

  void start() {
    manager().backgroundServiceDidFinishLaunching({});
    loop_.runReady();
  }

  std::vector<DistributedNotification> heard_;  // what the daemon announced
  std::vector<std::unique_ptr<platform::DistributedNotificationCenter::Observation>> observations_;
};
