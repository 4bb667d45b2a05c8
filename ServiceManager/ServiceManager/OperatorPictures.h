#pragma once

#include <memory>
#include <mutex>

#include "ServiceManager/ServiceManager/OperatorPicture.h"

// Hands the latest picture from the main thread to the operator's. Any thread.
class OperatorPictures {
 public:
  using Picture = std::shared_ptr<const OperatorPicture>;

  // Never null: an empty picture before the first publication.
  Picture latest() const;
  void publish(Picture picture);

 private:
  mutable std::mutex mutex_;
  Picture latest_ = std::make_shared<OperatorPicture>(
      OperatorPicture{.catalogue = std::make_shared<ServiceCatalogue>()});
};
