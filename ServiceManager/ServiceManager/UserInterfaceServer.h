#pragma once

#include <string_view>

#include "Platform/Messages/NSProxy.h"

class ChangeRequests;
class ORBServiceManager;
struct ServerMessage;

// The root object of the user interface's server: "services", "pidForService:" and
// "lastExitStatusForService:" with a label, "stopServices:" and "startServices:" with an array of
// labels, "registerClient:" with a proxy that is notified of the services. Belongs to the main
// thread. Any other message raises, and so does an argument of another type. The two questions
// about a label are answered when the job host has answered.
class UserInterfaceServer final : public platform::MessageTarget {
 public:
  // Both outlive this. `changes` limits the requests to stop and start services.
  UserInterfaceServer(ORBServiceManager& manager, ChangeRequests& changes)
      : manager_(manager), changes_(changes) {}

  void takeMessage(std::string_view selector, const platform::Array& arguments,
                   platform::MessageReply reply) override;

 private:
  platform::MessageResult answerTo(const ServerMessage& message);

  ORBServiceManager& manager_;
  ChangeRequests& changes_;
};
