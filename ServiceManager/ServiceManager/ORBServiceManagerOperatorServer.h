#pragma once

#include <string_view>

#include "Platform/Messages/NSProxy.h"

class ORBServiceManager;

// The root object of the operator's server: tells what the daemon knows and why it does what it
// does, and changes nothing. Belongs to the main thread. The keys of what it tells stand in
// OperatorFacts.h and HealthRecord.h.
class ORBServiceManagerOperatorServer final : public platform::MessageReceiver {
 public:
  // `manager` outlives this.
  explicit ORBServiceManagerOperatorServer(const ORBServiceManager& manager) : manager_(manager) {}

  // "overview", "healthRecord" (nil where the product keeps none), "factsOfService:" (nil for a
  // label that no service of any product has) and "jobsOfServices:", which tells of each label of
  // this product's services what the job host knows. The last two ask the job host, which costs
  // half a minute where it is there and does not answer; the facts also ask the settings servers of
  // the service's switches, for two seconds each at most.
  // "extensions" tells of the catalogue's extensions by name; each that does not accept connections
  // costs a second.
  platform::MessageResult receiveMessage(std::string_view selector,
                                         const platform::Array& arguments) override;

 private:
  const ORBServiceManager& manager_;
};
