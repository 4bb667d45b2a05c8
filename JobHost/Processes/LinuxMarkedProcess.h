#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "JobHost/Processes/JobGroups.h"
#include "JobHost/Processes/Processes.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"

namespace jobhost {

// Whether the process is in a control group of the label's job.
using IsInGroupOf = std::function<bool(std::string_view process, std::string_view label)>;

// The time that one search waits for processes which are executing a program, all together. A user
// can make an execution last as long as he likes.
class ExecutionWait {
 public:
  // Waits for a moment. False if the time is over.
  bool wait();

 private:
  int moments_ = 50;  // of a millisecond
};

// A process with a mark or in the control group of a job, held by its pidfd.
class LinuxMarkedProcess final : public MarkedProcess {
 public:
  // The signs of a process of a job.
  struct Signs {
    std::uint64_t host = 0;             // the hostMark() in its environment
    const JobGroups* groups = nullptr;  // for a process without a mark, if not null
    const IsInGroupOf& isInGroupOf;     // whether a mark can't be forged; may be empty
    ExecutionWait& execution;           // for a process whose mark the kernel does not show yet
  };
  // The process of this number and "stat" file, if it is of a job and is wanted, else null. Fails
  // for want of descriptors.
  static platform::Result<std::unique_ptr<MarkedProcess>> find(std::string_view number,
                                                               const std::string& stat,
                                                               const Signs& signs,
                                                               const Processes::Wanted& isWanted);

  LinuxMarkedProcess(std::string label, const StartFields& identity, bool isLeader,
                     platform::UniqueFd pidfd)
      : label_(std::move(label)),
        identity_(identity),
        isLeader_(isLeader),
        pidfd_(std::move(pidfd)) {}

  const std::string& label() const override { return label_; }
  const StartFields& identity() const override { return identity_; }
  bool isLeader() const override { return isLeader_; }
  bool hasEnded() const override;
  platform::Result<void> signal(int signal) override;

 private:
  std::string label_;
  StartFields identity_;
  bool isLeader_;
  platform::UniqueFd pidfd_;
};

}  // namespace jobhost
