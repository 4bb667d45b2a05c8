#pragma once

#include <string_view>

#include "Platform/NSProxy.h"

class ORBServiceManager;

// The root object of the operator's server: tells what the daemon knows and why it does what it
// does, and changes nothing. Belongs to the main thread. The keys of what it tells stand in
// OperatorFacts.h and HealthRecord.h.
class ORBServiceManagerOperatorServer final : public platform::MessageReceiver {
 public:
  // `manager` outlives this.
  explicit ORBServiceManagerOperatorServer(const ORBServiceManager& manager) : manager_(manager) {}

  // "overview", "healthRecord" (nil where the product keeps none) and "factsOfService:" (nil for a
  // label that no service of any product has). The last asks the job host and, for the service's
  // switches, the settings servers, and so may take as long as that service's evaluation.
  // "extensions" tells of the catalogue's extensions by name; each that does not accept connections
  // costs a second.
  platform::MessageResult receiveMessage(std::string_view selector,
                                         const platform::Array& arguments) override;

 private:
  const ORBServiceManager& manager_;
};
