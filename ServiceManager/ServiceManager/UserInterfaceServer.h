#pragma once

#include <string_view>

#include "Platform/Messages/NSProxy.h"

class ChangeRequests;
class ORBServiceManager;
struct ServerMessage;

// The root object of the user interface's server: "services", "servicesAfter:", "pidForService:"
// and "lastExitStatusForService:" with a label, "stopServices:" and "startServices:" with an array
// of labels, "registerClient:" with a proxy that is notified of the services. Belongs to the main
// thread. Any other message raises, and so does an argument of another type. The questions about
// the state of a service are answered when the job host has answered.
//
// "services" raises if there are too many for one message. "servicesAfter:" answers with those that
// follow a label in the catalogue, as many as fit: first with "", then with the last label of each
// answer, until an answer is empty.
class UserInterfaceServer final : public platform::MessageTarget {
 public:
  // Both outlive this. `changes` limits the requests to stop and start services.
  UserInterfaceServer(ORBServiceManager& manager, ChangeRequests& changes)
      : manager_(manager), changes_(changes) {}

  void takeMessage(std::string_view selector, const platform::Array& arguments,
                   platform::MessageReply reply) override;

 private:
  platform::MessageResult answerTo(const ServerMessage& message);
  platform::MessageResult services(const ServerMessage& message) const;
  platform::MessageResult servicesAfter(const ServerMessage& message) const;

  ORBServiceManager& manager_;
  ChangeRequests& changes_;
};
