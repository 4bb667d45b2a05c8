#pragma once

#include <expected>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Jobs/Authorization.h"
#include "Platform/Jobs/Jobs.h"
#include "Platform/Values/Error.h"
#include "Platform/Values/Value.h"

// The daemon's only way to launchd: it submits, removes and copies jobs of the system domain with
// the rights that the daemon has acquired. Belongs to the main thread; each call blocks until the
// job host has answered, for a bounded time. Failures are logged.
class LaunchdJobs {
 public:
  // Both outlive this.
  LaunchdJobs(platform::Jobs& jobs, platform::Authorization& authorization)
      : jobs_(jobs), authorization_(authorization) {}

  // Asks for the right to change the system's jobs. The status of the refusal, or
  // errAuthorizationSuccess, also if no authorization can be created: the job host checks each
  // request itself.
  platform::OSStatus acquireRights();

  // Submits a dictionary, or removes the job that a string names and waits for its end. False with
  // an error if that failed; false with `requestError` untouched for any other request.
  bool submitJobRequest(const platform::Value& request, std::string_view forDomain,
                        std::optional<platform::NSError>& requestError);
  // Removes the job. `done` is called when its processes have ended, or with the error.
  using Removed = std::move_only_function<void(std::expected<void, platform::NSError>)>;
  void unloadJobFromLaunchD(const std::string& label, Removed done);

  // The job's dictionary with the state of its process; see Jobs::SMJobCopyDictionary().
  platform::Value copyJobDictionary(std::string_view label) const;
  platform::JobStatus status(std::string_view label) const;

 private:
  platform::Jobs& jobs_;
  platform::Authorization& authorization_;
  std::unique_ptr<platform::AuthorizationRef> authRef_;
};
