#pragma once

#include <expected>
#include <functional>
#include <memory>
#include <string_view>

#include "Platform/Jobs/JobStartObservers.h"
#include "Platform/Jobs/Jobs.h"
#include "Platform/Linux/Jobs/JobHostClient.h"

namespace platform {

// The jobs of this platform root's own job host.
class EmbeddedJobs final : public Jobs {
 public:
  // `client` outlives this.
  explicit EmbeddedJobs(JobHostClient& client) : client_(client) {}

  std::expected<void, NSError> SMJobSubmit(std::string_view domain, const Value& job,
                                           const AuthorizationRef* authorization) override;
  std::expected<void, NSError> SMJobRemove(std::string_view domain, std::string_view label,
                                           const AuthorizationRef* authorization,
                                           bool wait) override;
  Value SMJobCopyDictionary(std::string_view domain, std::string_view label) override;
  void submitJob(std::string_view domain, const Value& job, const AuthorizationRef* authorization,
                 Submitted submitted) override;
  void copyJob(std::string_view domain, std::string_view label, Copied copied) override;
  void copyStatesAfter(std::string_view label, Copied copied) override;
  void removeJob(std::string_view domain, std::string_view label,
                 const AuthorizationRef* authorization, Removed removed) override;
  std::unique_ptr<RunLoopHandle> observeStarts(StartObserver observer) override;

  // For the operator's command, which shows all jobs, and the reason if there are none to show.

  // A job's dictionary, nil if no job has the label.
  std::expected<Value, NSError> copyJob(std::string_view label);
  // The state of every job's process: by label, a dictionary with "PID", "LastExitStatus" and
  // "LastExitStatusUnknown" as far as they apply, and with the counts of its "History". Asks for
  // them in pages, so they are of slightly different times.
  std::expected<Dictionary, NSError> copyJobStates();

 private:
  template <class Call, class Answer>
  void callLater(Call call, Answer answer);
  void awaitStarts();
  void startsReported(const Result<JobHostClient::Answer>& answer);

  JobHostClient& client_;
  JobStartObservers startObservers_;
  bool isAwaitingStarts_ = false;  // a request is pending, or its retry
  std::unique_ptr<RunLoopHandle> startsRetry_;
  // Callbacks check by it whether this still exists.
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace platform
