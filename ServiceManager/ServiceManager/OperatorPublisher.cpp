#include "ServiceManager/ServiceManager/OperatorPublisher.h"

#include <algorithm>
#include <utility>

using namespace platform;

void OperatorPublisher::publish(Published published) {
  last_ = environment_.runLoop.now();
  auto picture = std::make_shared<OperatorPicture>(environment_.take());
  const auto publish = [pictures = environment_.pictures](auto taken, Published& whenDone) {
    pictures->publish(std::move(taken));
    if (whenDone) whenDone();
  };
  if (!environment_.health) return publish(std::move(picture), published);
  environment_.health->takeHealthRecord([publish, picture = std::move(picture),
                                         published = std::move(published)](Value record) mutable {
    picture->healthRecord = std::move(record);
    publish(std::move(picture), published);
  });
}

void OperatorPublisher::changed() {
  if (!last_) return;
  const Duration left = *last_ + kInterval - environment_.runLoop.now();
  delayedCalls_.perform({"publish"}, [this] { publish(); }, std::max(left, Duration::zero()));
}
