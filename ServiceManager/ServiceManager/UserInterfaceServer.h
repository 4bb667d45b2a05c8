#pragma once

#include <string_view>

#include "Platform/Messages/NSProxy.h"

class ORBServiceManager;

// The root object of the user interface's server: "services", "pidForService:" and
// "lastExitStatusForService:" with a label, "stopServices:" and "startServices:" with an array of
// labels, "registerClient:" with a proxy that is notified of the services. Belongs to the main
// thread. Any other message raises, and so does an argument of another type.
class UserInterfaceServer final : public platform::MessageReceiver {
 public:
  // `manager` outlives this.
  explicit UserInterfaceServer(ORBServiceManager& manager) : manager_(manager) {}

  platform::MessageResult receiveMessage(std::string_view selector,
                                         const platform::Array& arguments) override;

 private:
  ORBServiceManager& manager_;
};
