#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Jobs/JobHistory.h"
#include "Platform/Jobs/Jobs.h"
#include "Platform/Values/KernelIds.h"
#include "Platform/Values/Value.h"
#include "ServiceManager/Supervision/SharedTable.h"

// The state of a service's job, as the job host has last told it.
struct KnownJob {
  platform::JobStatus status = {};
  bool isLastExitStatusUnknown = false;
  bool hasProgramChanged = false;
  std::optional<platform::JobHistory> history = {};

  bool operator==(const KnownJob& other) const;
};

struct KnownJobTable {
  std::map<std::string, KnownJob, std::less<>> jobs = {};
  bool isComplete = false;  // a job without an entry is absent, and not unknown

  KnownJob find(std::string_view label) const;
};

// The last answers of the job host about all jobs. The operator is answered from it, so that a job
// host that hangs delays no answer. Belongs to the main thread.
class KnownJobs {
 public:
  // These return whether anything has changed.

  // `copy` is a copy of the job or its state. If the host could not tell, nothing changes.
  bool update(std::string_view label, const platform::Value& copy);
  // `states` is the page of Jobs::copyStatesAfter(after).
  bool updatePage(std::string_view after, const platform::Dictionary& states);
  // The process has ended. The job host has not told yet how, and what follows.
  bool processEnded(std::string_view label, platform::ProcessId process);

  KnownJob find(std::string_view label) const { return table_->find(label); }
  // For any thread. It does not change any more.
  std::shared_ptr<const KnownJobTable> table() const { return table_.share(); }

 private:
  bool set(std::string_view label, KnownJob job);
  void forgetAbsentJobs();

  SharedTable<KnownJobTable> table_;
};
