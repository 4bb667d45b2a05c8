#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>

#include "Platform/RunLoops/DelayedCalls.h"
#include "Platform/RunLoops/RunLoop.h"
#include "ServiceManager/ServiceManager/OperatorPicture.h"
#include "ServiceManager/ServiceManager/OperatorPictures.h"
#include "ServiceManager/Supervision/ServiceHealth.h"

// Takes pictures of the daemon for the operator. Belongs to the main thread.
//
// The operator's thread asks for a picture whenever it needs one, so those that are published
// unasked only matter if the main thread hangs afterwards. They are as old as kInterval then.
class OperatorPublisher {
 public:
  using Published = std::move_only_function<void()>;  // may be empty

  static constexpr platform::Duration kInterval = std::chrono::milliseconds(100);

  // All of it outlives this, but `pictures`, which the operator's thread shares. `take` makes a
  // picture without the health record.
  struct Environment {
    platform::RunLoop& runLoop;
    std::shared_ptr<OperatorPictures> pictures;
    std::function<OperatorPicture()> take;
    const std::unique_ptr<ServiceHealth>& health;  // null if the product keeps none
  };
  explicit OperatorPublisher(Environment environment)
      : environment_(std::move(environment)), delayedCalls_(environment_.runLoop) {}

  // Publishes a picture now. `published` is called on any thread, perhaps from inside this call,
  // when the operator's thread can see it.
  void publish(Published published = {});

  // Something has changed: publishes a picture in a later turn, kInterval after the last one. A
  // publication that is pending stands for all. Does nothing before the first publish().
  void changed();

  const std::shared_ptr<OperatorPictures>& pictures() const { return environment_.pictures; }

 private:
  const Environment environment_;
  std::optional<platform::Instant> last_;
  platform::DelayedCalls delayedCalls_;
};
