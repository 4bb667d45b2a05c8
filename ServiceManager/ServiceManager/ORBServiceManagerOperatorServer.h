#pragma once

#include <string_view>

#include "Platform/Messages/NSProxy.h"

class OperatorReport;

// The root object of the operator's server, which reports the daemon's state and the reasons for
// its decisions, and changes nothing. Belongs to the main thread. The keys of the answers are in
// OperatorFacts.h and HealthRecord.h.
class ORBServiceManagerOperatorServer final : public platform::MessageReceiver {
 public:
  // `report` outlives this.
  explicit ORBServiceManagerOperatorServer(const OperatorReport& report) : report_(report) {}

  // "overview"; "healthRecord"; "factsOfService:" with a label; "jobsOfServices:" with an array of
  // labels; "extensions". See OperatorReport.h for the answers and for how long each blocks. A job
  // host that hangs costs half a minute.
  platform::MessageResult receiveMessage(std::string_view selector,
                                         const platform::Array& arguments) override;

 private:
  const OperatorReport& report_;
};
