#include "ServiceManager/ServiceManager/OperatorPictures.h"

#include <utility>

OperatorPictures::Picture OperatorPictures::latest() const {
  const std::lock_guard lock(mutex_);
  return latest_;
}

// The previous picture ends after the lock, since others may be waiting for that.
void OperatorPictures::publish(Picture picture) {
  const std::lock_guard lock(mutex_);
  latest_.swap(picture);
}
