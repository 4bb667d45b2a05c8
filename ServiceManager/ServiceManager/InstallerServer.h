#pragma once

#include <string_view>

#include "Platform/Messages/NSProxy.h"

class ChangeRequests;
class ORBServiceManager;

// The root object of the installer's server: "shutdownServices:" with an array of labels, which an
// installer is about to replace, and "evaluateServices" when it has finished. Belongs to the main
// thread. Any other message raises. An installer is answered once its services have been shut down.
class InstallerServer final : public platform::MessageTarget {
 public:
  // Both outlive this. `changes` limits the requests.
  InstallerServer(ORBServiceManager& manager, ChangeRequests& changes)
      : manager_(manager), changes_(changes) {}

  void takeMessage(std::string_view selector, const platform::Array& arguments,
                   platform::MessageReply reply) override;

 private:
  ORBServiceManager& manager_;
  ChangeRequests& changes_;
};
