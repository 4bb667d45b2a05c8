#pragma once

#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Values/Value.h"
#include "ServiceManager/Catalogue/CatalogueKeys.h"
#include "ServiceManager/Catalogue/CatalogueLookups.h"

// The catalogue of the installed product: which services there are and what each needs. A value,
// which is cheap to copy; any thread. An empty one has no service.
class ServiceCatalogue {
 public:
  ServiceCatalogue() = default;

  // `serviceInfo`: Service.plist with the services of the installed product alone.
  // `otherProductsServices`: the labels of the rest, each with the products that it belongs to.
  explicit ServiceCatalogue(platform::Value serviceInfo,
                            platform::Dictionary otherProductsServices = {});

  const platform::Value& serviceInfo() const { return serviceInfo_; }
  const platform::Dictionary& otherProductsServices() const { return otherProductsServices_; }

  // The services by label, nil in an empty catalogue.
  const platform::Value& services() const { return serviceInfo_[catalogue_keys::kServices]; }
  // The label of the primary service, which every other service depends on; empty without one.
  std::string primaryLabel() const;
  // The first service that announces its start by this notification.
  std::optional<std::string> labelForNotification(std::string_view name) const;

  // A service's entry, its job's dictionary and its type; see CatalogueLookups.h.
  platform::Value service(Label label) const { return serviceEntryWithLabel(label, serviceInfo_); }
  platform::Value jobInfo(Label label) const { return jobInfoWithLabel(label, serviceInfo_); }
  std::string_view serviceType(Label label) const {
    return serviceTypeForLabel(label, serviceInfo_);
  }
  platform::Value feature(Label name) const {
    return featureEntryWithFeatureName(name, serviceInfo_);
  }

  // The names of the kernel extensions that the service needs.
  std::vector<std::string> extensionsOf(Label label) const;
  // The labels of the services that need the extension.
  std::set<std::string> daemonsUsingKext(const std::string& kextName) const;
  // The identifier of the extension; nothing if the catalogue gives it none.
  std::optional<std::string> extensionIdentifier(std::string_view kextName) const;
  // The extensions by name, nil without any.
  const platform::Value& extensions() const {
    return serviceInfo_[catalogue_keys::kKernelExtensions];
  }

 private:
  platform::Value serviceInfo_;
  platform::Dictionary otherProductsServices_;
};
