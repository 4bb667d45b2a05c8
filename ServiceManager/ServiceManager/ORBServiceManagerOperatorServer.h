#pragma once

#include <functional>
#include <string_view>

#include "Platform/Messages/NSProxy.h"

class OperatorReport;

// The root object of the operator's server, which reports the daemon's state and the reasons for
// its decisions, and changes nothing. Belongs to the main thread. The keys of the answers are in
// OperatorFacts.h and HealthRecord.h.
class ORBServiceManagerOperatorServer final : public platform::MessageTarget {
 public:
  // Calls `settled` when nothing goes on with the services of these labels.
  using WhenSettled =
      std::function<void(const platform::Array& labels, std::move_only_function<void()> settled)>;

  // `report` outlives this.
  ORBServiceManagerOperatorServer(const OperatorReport& report, WhenSettled whenSettled)
      : report_(report), whenSettled_(std::move(whenSettled)) {}

  // "overview"; "healthRecord"; "factsOfService:" with a label; "jobsOfServices:" with an array of
  // labels; "extensions". See OperatorReport.h for the answers and for how long each blocks. A job
  // host that hangs costs half a minute. "awaitServices:" with an array of labels is answered, by
  // true, when the service manager is no longer busy with any of these services.
  void takeMessage(std::string_view selector, const platform::Array& arguments,
                   platform::MessageReply reply) override;

 private:
  platform::MessageResult answerTo(std::string_view selector,
                                   const platform::Array& arguments) const;

  const OperatorReport& report_;
  const WhenSettled whenSettled_;
};
